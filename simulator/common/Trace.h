/// Writes what happens at the driver, one JSON object a line.
#ifndef KIVSIM_TRACE_H
#define KIVSIM_TRACE_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>

namespace kivsim {

/// One thread at a time. Lines are written through at once, so a reader sees every event that a caller has
/// seen.
class Trace {
  public:
    /// An empty path traces nothing. Throws std::runtime_error when the file cannot be written.
    explicit Trace(const std::string& path);

    /// `service`: "card ID function N".
    void open(uint64_t connection, const std::string& service, uint32_t type, int32_t status);
    void close(uint64_t connection, const std::string& service);
    void call(uint64_t connection, const std::string& service, uint32_t selector,
              std::span<const std::byte> input, int32_t status, std::span<const std::byte> reply);

  private:
    struct CloseFile {
        void operator()(FILE* file) const { std::fclose(file); }
    };
    void write(const std::string& line);

    std::unique_ptr<FILE, CloseFile> file_;
};

}  // namespace kivsim

#endif
