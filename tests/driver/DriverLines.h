/// What the driver client says in the platform's log.
#ifndef KIV_TEST_DRIVER_LINES_H
#define KIV_TEST_DRIVER_LINES_H

#include <kivos/descriptor.h>
#include <sys/types.h>

#include <cstdio>
#include <memory>
#include <string>

#include "support/Lines.h"

/// Catches standard error, where the log is mirrored, from its creation to its end, also while a line comes
/// from another thread.
class DriverLines {
  public:
    DriverLines();
    ~DriverLines();
    DriverLines(const DriverLines&) = delete;
    DriverLines& operator=(const DriverLines&) = delete;

    /// The texts so far, and with them none. A line that does not begin as the client's do comes whole.
    Lines take();

  private:
    const std::unique_ptr<FILE, int (*)(FILE*)> file_{std::tmpfile(), &std::fclose};
    const kivos::Descriptor usual_;
    off_t read_ = 0;    ///< Bytes of the file.
    std::string line_;  ///< As far as it is there.
};

#endif
