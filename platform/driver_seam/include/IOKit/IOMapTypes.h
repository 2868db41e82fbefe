#ifndef IOKIT_IOMAPTYPES_H
#define IOKIT_IOMAPTYPES_H

/* Memory type of a driver that has one only. */
#define kIODefaultMemoryType 0

/* Options of a mapping. */
enum { kIOMapAnywhere = 1 };

#endif
