/* What the shared library exports: the rest is hidden. Plain C11, no dependencies. */
#ifndef KIV_EXPORT_H
#define KIV_EXPORT_H

#define KIV_API __attribute__((visibility("default")))
/* For private functions of an exported class; not for virtual ones: the vtables of subclasses name them. */
#define KIV_LOCAL __attribute__((visibility("hidden")))

#endif
