/// A set of texts as one file, or as a folder.
#ifndef KIVCTL_SUPPORT_ARCHIVE_H
#define KIVCTL_SUPPORT_ARCHIVE_H

#include <string>
#include <vector>

namespace kivctl {

struct Member {
    std::string name;  ///< With "/" between folders.
    std::string what;  ///< For a person.
    std::string text;
};

/// Where the members go: a tar.gz file, or for a name that ends in "/" a folder. It is made at once, so that
/// what cannot be written is known before anything is collected; when the process ends before write() has,
/// it goes again.
class Archive {
  public:
    /// A folder that exists gets a new one in it, called `name`; nothing else may exist. Throws Failure.
    Archive(std::string wanted, const std::string& name);

    /// Throws Failure.
    void write(const std::vector<Member>& members);

    const std::string& path() const { return path_; }

  private:
    void write_folder(const std::vector<Member>& members) const;
    void write_file(const std::vector<Member>& members);

    std::string path_;
    std::string name_;
    bool is_folder_ = false;
    int file_ = -1;
};

}  // namespace kivctl

#endif
