/// What the driver client says in the platform's log.
#ifndef KIV_TEST_DRIVER_LINES_H
#define KIV_TEST_DRIVER_LINES_H

#include "support/Lines.h"

/// Catches standard error, where the log is mirrored, from its creation to its end.
class DriverLines {
  public:
    DriverLines();
    ~DriverLines();
    DriverLines(const DriverLines&) = delete;
    DriverLines& operator=(const DriverLines&) = delete;

    /// The texts so far, and with them none. A line that does not begin as the client's do comes whole.
    Lines take();
};

#endif
