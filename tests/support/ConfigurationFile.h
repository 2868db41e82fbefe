/// The host's card configuration, which has one place for the whole machine: what the test finds there comes
/// back when the object goes (or, after a crash, at the next test). Tests that use it share the ctest lock
/// "card configuration".
#ifndef KIV_TEST_CONFIGURATION_FILE_H
#define KIV_TEST_CONFIGURATION_FILE_H

#include <string>

class ConfigurationFile {
  public:
    explicit ConfigurationFile(const std::string& text = sample());
    ~ConfigurationFile();
    ConfigurationFile(const ConfigurationFile&) = delete;
    ConfigurationFile& operator=(const ConfigurationFile&) = delete;

    /// False when this user may not write there; then the object does nothing.
    bool usable() const { return usable_; }

    void write(const std::string& text);
    void remove();  ///< For the rest of the test there is none.
    static std::string path();
    std::string read() const;

    static std::string sample();  ///< That of the examples.

  private:
    void restore();

    bool usable_ = false;
};

/// Ends the test as skipped, with the reason, when the configuration cannot be written.
#define SKIP_UNLESS_USABLE(configuration) \
    if (!(configuration).usable())        \
    GTEST_SKIP() << "the card configuration's directory is not writable for this user"

#endif
