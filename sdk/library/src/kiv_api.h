/*
 * The C interface to the media-network cards of this machine.
 *
 *   kiv_log_config_t log = {KIV_LOG_LEVEL_INFO};
 *   kiv_open(&log);
 *   kiv_scan_t found;
 *   if (kiv_scan(&found) == KIV_OK) { ... found.devices[0 .. found.count - 1] ... }
 *   kiv_close();
 *
 * Rules
 *
 * 1. Life cycle. kiv_open loads the card configuration; kiv_scan finds the cards and starts watching them; the
 *    calls for one card work until the next kiv_scan or kiv_close. After kiv_close a scan may follow without a
 *    new open. A process may also just end.
 * 2. Device ids. A card is named by the one-byte id that the scan gave for it. A call for one card checks, in this
 *    order: that a scan has been made (else KIV_ERR_NOT_OPENED), that it found this id (else KIV_ERR_NO_DEVICE),
 *    its pointers (rule 5); then it asks the card.
 * 3. Records. The caller owns every record, zeroes it before the call, and keeps it: the library stores no pointer.
 *    A getter writes only the fields that it has values for. The arrays of the scan records belong to the library
 *    and last until the next scan or close.
 * 4. Result codes. Every function returns KIV_OK or a code of kiv_types.h (kiv_get_epoch_and_2point also the
 *    driver's status). KIV_ERR_FAILED is also the result when the management server's answer has not the expected
 *    shape. No exception leaves a function, but for two that say so: kiv_open and kiv_configure_save throw
 *    std::runtime_error.
 * 5. Null pointers. A getter with a null output does nothing and returns KIV_OK. Where a pointer is required, null
 *    is logged as "Argument is NULL" and returns KIV_ERR_NULL_ARGUMENT.
 * 6. Threads. Calls for cards may be made from several threads at once. kiv_open, kiv_scan, kiv_scan_internal
 *    and kiv_close must not run at the same time as any other call but those of kivLog.h. A call for one card may
 *    wait for the card's management server: for about 7 seconds for each request when that does not answer (three
 *    attempts of 2 seconds each, and the pauses between them); kiv_write_flash_image for about 30 seconds for the
 *    upload alone.
 * 7. Event callbacks run on worker threads of the library. There, and in any job of a PeriodicThreadPool, kiv_scan
 *    and kiv_scan_internal return KIV_ERR_FAILED and kiv_close KIV_OK, all without doing anything: they would wait
 *    for their own thread. For the same reason an event callback must not end the process with exit(). Log callbacks
 *    run on the thread that logs, also in the midst of a scan or of an event callback, and must call none of these,
 *    nor the event functions.
 * 8. Versions. Records grow only with a new major version of the library.
 */
#ifndef KIV_API_H
#define KIV_API_H

#include <stdint.h>

#include "kivLog.h"
#include "kiv_types.h"
#include "kiv_version.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Life cycle -------------------------------------------------------------------------------------- */

/*
 * Opens the log with the application's settings (null keeps those in force) and loads the card configuration
 * from "/Library/Application Support/Velmora/config/hps_boot.json". No card is touched. Returns KIV_OK;
 * throws std::runtime_error, with a text that says why, when the file cannot be read, parsed or converted:
 * the configuration loaded before then stays.
 */
KIV_API kiv_result_t kiv_open(const kiv_log_config_t* log_config);

/*
 * Ends what the scan started: the watching of the cards, their management-server clients and their records.
 * The connections to the driver end at the next scan or with the process. Without a scan, or a second time,
 * it only empties the list of found cards. Returns KIV_OK.
 */
KIV_API kiv_result_t kiv_close(void);

/* Writes the version of this library. A null pointer is ignored. Returns KIV_OK. */
KIV_API kiv_result_t kiv_get_sw_version(kiv_sw_version_t* version);

/*
 * Writes the card configuration back to its file. Returns KIV_OK whatever becomes of the bytes; throws
 * std::runtime_error when the file cannot be opened for writing.
 */
KIV_API kiv_result_t kiv_configure_save(void);

/*
 * Writes a line of the application into the library's log. `message` is a format text: braces stand for
 * placeholders, "{{" and "}}" for braces (kivLog_print takes a text as it stands). KIV_ERR_FAILED, with
 * nothing written, for a format that needs arguments or is malformed; KIV_ERR_NULL_ARGUMENT for null. A
 * message whose level is not wanted is not looked at.
 */
KIV_API kiv_result_t kiv_log_print(kiv_log_level_t level, const char* message);

/* ---- Discovery ------------------------------------------------------------------------------------------- */

/*
 * Finds the cards, opens each one's driver functions and management server, and starts watching them. Ends an
 * earlier scan first. On success `scan` lists the cards; no card is a success with count 0.
 * KIV_ERR_NULL_ARGUMENT for null; KIV_ERR_FAILED when a card cannot be opened or does not give its identity
 * and addresses (the log says which): no card is listed then; those opened before it answer calls, others may
 * not. Opening a card sends the log back to its back end at level info.
 */
KIV_API kiv_result_t kiv_scan(kiv_scan_t* scan);

/*
 * As kiv_scan, with the tunnel endpoint of each card. The tunnel entries of all such scans of the process are
 * kept in one list, and `internal` points at its start: only the first one reports current values. Results as
 * kiv_scan.
 */
KIV_API kiv_result_t kiv_scan_internal(kiv_scan_internal_t* scan);

/*
 * Id of the card that is selected as PTP source. KIV_ERR_FAILED when none is, or before a scan;
 * KIV_ERR_NULL_ARGUMENT for null.
 */
KIV_API kiv_result_t kiv_get_id_selected_ptp_card(uint8_t* device_id);

/* ---- Queries of one card --------------------------------------------------------------------------------- */

/*
 * Identity: registers through the driver, MAC addresses as the card listed them at the scan. KIV_ERR_FAILED
 * when a register cannot be read; nothing is written then.
 */
KIV_API kiv_result_t kiv_get_card_info(uint8_t device_id, kiv_card_info_t* info);

/*
 * Addresses and prefix lengths of the media ports, asked of the card's management server. Fields of a port
 * that the card does not list, VLAN fields and fillers stay as they are; an address text that is none is 0, with a
 * line on standard error. KIV_ERR_REST when the server does
 * not answer, KIV_ERR_FAILED when it sends a mask that is none.
 */
KIV_API kiv_result_t kiv_get_media_net_config(uint8_t device_id, kiv_net_config_t* config);

/* The same as kiv_get_media_net_config: PTP runs over the media ports. */
KIV_API kiv_result_t kiv_get_ptp_net_config(uint8_t device_id, kiv_net_config_t* config);

/*
 * Temperatures and board power, asked of the card's management server, in the units of its report; and the PCI
 * link, asked of the driver: without an answer of the driver `pci_link_a` is 0 and `pci_link_b` stays. The first
 * value of each sensor stays too; a sensor that the card does not report is 0. KIV_ERR_REST when the server does
 * not answer, KIV_ERR_FAILED when its report cannot be read; nothing is written then.
 */
KIV_API kiv_result_t kiv_get_card_status(uint8_t device_id, kiv_card_status_t* status);

/*
 * Link and load of the media ports, from registers. A load is counter / reference x 2 x 100 percent in floating
 * point; with a reference of 0 it is infinite, or not a number when the counter is 0 too. Only the value 1 is
 * written to the link fields: zero the record first. KIV_ERR_FAILED when a register cannot be read; links that
 * are up may be written then.
 */
KIV_API kiv_result_t kiv_get_net_status(uint8_t device_id, kiv_net_status_t* status);

/*
 * PTP settings: those last applied to the card by kiv_set_ptp_config since the scan, else those of the card
 * configuration. `port_params` stays when the configuration has no entry for the card. Asks nobody.
 */
KIV_API kiv_result_t kiv_get_ptp_config(uint8_t device_id, kiv_ptp_config_t* config);

/*
 * PTP state (from a register; untouched when no state bit is set), time (from the driver) and master (asked of
 * the management server). KIV_ERR_FAILED when a register or the time cannot be read, or the master's identity
 * is not 1 to 16 hexadecimal digits; KIV_ERR_REST when the server does not answer. State and time may be written
 * then.
 */
KIV_API kiv_result_t kiv_get_ptp_status(uint8_t device_id, kiv_ptp_status_t* status);

/*
 * Use of the transmit and receive streams: low bytes and bits of registers, and the driver's resource counts.
 * KIV_ERR_FAILED, with nothing written, when one cannot be read.
 */
KIV_API kiv_result_t kiv_get_tx_stream_status(uint8_t device_id, kiv_tx_stream_status_t* status);
KIV_API kiv_result_t kiv_get_rx_stream_status(uint8_t device_id, kiv_rx_stream_status_t* status);

/*
 * The driver's three times, as it reports them: PTP time, and the two readings of the system clock around it.
 * With one null pointer or more it does nothing and returns KIV_OK. On failure the driver's own status, or 0xFFFFFFFF; the
 * three are then 0.
 */
KIV_API kiv_result_t kiv_get_epoch_and_2point(uint8_t device_id, uint64_t* epoch, uint64_t* point_1,
                                              uint64_t* point_2);

/* ---- Settings of one card -------------------------------------------------------------------------------- */

/*
 * Applies network and PTP settings to the card, through its management server, and keeps them in the card
 * configuration in memory: addresses, masks, TOS and TTL in the card's entries, and the five global PTP values,
 * which all cards share. kiv_configure_save writes them to the file. VLAN ids are 0 for a port whose
 * `vlan_enable` is 0. Both pointers are required. KIV_ERR_REST when the server does not answer or refuses; the
 * configuration stays then.
 */
KIV_API kiv_result_t kiv_set_ptp_config(uint8_t device_id, const kiv_net_config_t* net,
                                        const kiv_ptp_config_t* ptp);

/* ---- Flash of one card ----------------------------------------------------------------------------------- */

/*
 * Uploads the firmware image in the file `path` and starts its write; returns when the card has begun, or after
 * ten looks at its state, a tenth of a second apart. The card goes on by itself: kiv_get_flash_write_status tells when it is idle again. The file
 * is read into memory. KIV_ERR_BUSY while the card is not idle (looked at before the path);
 * KIV_ERR_NULL_ARGUMENT for a null path; KIV_ERR_REST when the file cannot be read, or the server does not
 * answer or refuses.
 */
KIV_API kiv_result_t kiv_write_flash_image(uint8_t device_id, const char* path);

/* 0 when the card's flash is idle, 1 while it is written or switched. KIV_ERR_REST without an answer. */
KIV_API kiv_result_t kiv_get_flash_write_status(uint8_t device_id, kiv_flash_status_t* status);

/*
 * Chooses the slot, 0 or 1, whose image the card boots next. KIV_ERR_INVALID_PARAM for another number (nothing
 * is sent); KIV_ERR_NULL_ARGUMENT for null; KIV_ERR_REST when the server does not answer or refuses.
 */
KIV_API kiv_result_t kiv_select_flash_slot(uint8_t device_id, const kiv_flash_slot_t* slot);

/*
 * Identifiers of the images in both slots, and the slot that boots next. KIV_ERR_REST when the server does not
 * answer; KIV_ERR_FAILED, with nothing written, when it sends other than 32 hexadecimal digits for each.
 */
KIV_API kiv_result_t kiv_get_flash_config(uint8_t device_id, kiv_flash_config_t* config);

/* ---- Events of one card ---------------------------------------------------------------------------------- */

/*
 * Adds a callback for the card's enabled events; one that is added twice is called twice. It runs on a worker
 * thread (rule 7), with `user` as given here; `data` is valid during the call. In it, queries and commands may
 * be called for any card, but none of these four functions, for any card: they wait for a callback that runs, so
 * hold no lock that a callback takes when calling them. KIV_ERR_NULL_ARGUMENT for a null
 * callback; `user` may be null. Registrations end with the next scan or close.
 */
KIV_API kiv_result_t kiv_register_callback_func(uint8_t device_id, kiv_event_callback_t callback, void* user);

/* Removes all callbacks of the card. None runs any more when this returns. */
KIV_API kiv_result_t kiv_unregister_callback_func(uint8_t device_id);

/*
 * Switches one event of the card on or off. KIV_EVENT_LINK and KIV_EVENT_PTP are looked at every second and
 * raised for what changed since they were last seen (first seen as: no link, state 0); KIV_EVENT_HWMON every
 * 60 seconds, while a sensor is at or above its maximum (one that the card does not report is 0 of 0, and so are all
 * when its report cannot be read). While an event is off nothing is looked at; a change that is seen while no
 * callback is registered is not reported again: register first. Other numbers are accepted and never raised.
 */
KIV_API kiv_result_t kiv_enable_event(uint8_t device_id, kiv_event_type_t event);
KIV_API kiv_result_t kiv_disable_event(uint8_t device_id, kiv_event_type_t event);

#ifdef __cplusplus
}
#endif

#endif
