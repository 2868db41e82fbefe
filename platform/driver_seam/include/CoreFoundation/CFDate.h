#ifndef COREFOUNDATION_CFDATE_H
#define COREFOUNDATION_CFDATE_H

/* Seconds. */
typedef double CFTimeInterval;

#endif
