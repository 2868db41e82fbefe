/* The one export macro: everything else in the shared library is hidden. Plain C11, no dependencies. */
#ifndef KIV_EXPORT_H
#define KIV_EXPORT_H

#define KIV_API __attribute__((visibility("default")))

#endif
