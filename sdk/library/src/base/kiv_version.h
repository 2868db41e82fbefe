/*
 * Version of these headers: compare it with kiv_get_sw_version (kiv_api.h), which tells that of the library
 * that runs. The build takes the project's version from the three numbers.
 */
#ifndef KIV_VERSION_H
#define KIV_VERSION_H

#define KIV_VERSION_MAJOR 0
#define KIV_VERSION_MINOR 1
#define KIV_VERSION_REVISION 1

/* One number to compare: 0.1.1 is 101, 1.2.3 is 10203. */
#define KIV_VERSION (KIV_VERSION_MAJOR * 10000 + KIV_VERSION_MINOR * 100 + KIV_VERSION_REVISION)

#endif
