/*
 * A small C interface to the driver extension, beside the main one (kiv_api.h). Any thread. The functions
 * keep a list of the driver's PCI functions of their own.
 */
#ifndef KIV_DEXT_H
#define KIV_DEXT_H

#include <stdint.h>

#include <kiv/kiv_export.h>

/* Functions that take, and ignore, any arguments. */
#if defined(__cplusplus) || (defined(__STDC_VERSION__) && __STDC_VERSION__ >= 202311L)
#define KIV_DEXT_ANY_ARGUMENTS ...
#else
#define KIV_DEXT_ANY_ARGUMENTS
#endif

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Finds the PCI functions that the driver publishes, in the driver's order, and opens a connection to each. 0
 * when there is at least one. 1 when there is none, and in the child of a process that used the library (rule
 * 9 of kiv_api.h).
 *
 * A second call ends the connections of the first, and takes leave of the driver for the whole process: also
 * for the cards of a scan (kiv_scan) and for every kivDriverClient. Scan again, and open the clients again,
 * after it.
 */
KIV_API int32_t kivDext_new(void);

/*
 * Position, from 0, in that list of the first PCI function whose card is the selected PTP source; the length
 * of the list when there is none. The driver does not report the selection and nobody outside can set it:
 * today it is always the length.
 */
KIV_API uint16_t kivDext_get_selected_ptp_card(void);

#if defined(__GNUC__) && !defined(__cplusplus)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wstrict-prototypes"
#endif
/* Not available: each returns -1. */
KIV_API int32_t kivDext_open_hps(KIV_DEXT_ANY_ARGUMENTS);
KIV_API int32_t kivDext_open_st2110(KIV_DEXT_ANY_ARGUMENTS);
KIV_API int32_t kivDext_close(KIV_DEXT_ANY_ARGUMENTS);
KIV_API int32_t kivDext_free(KIV_DEXT_ANY_ARGUMENTS);
KIV_API int32_t kivDext_get_epoch_and_system_time(KIV_DEXT_ANY_ARGUMENTS);
KIV_API int32_t kivDext_hps_pciread64(KIV_DEXT_ANY_ARGUMENTS);
KIV_API int32_t kivDext_st2110_pciread64(KIV_DEXT_ANY_ARGUMENTS);
#if defined(__GNUC__) && !defined(__cplusplus)
#pragma GCC diagnostic pop
#endif

#ifdef __cplusplus
}
#endif

#endif
