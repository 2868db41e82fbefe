/*
 * The C interface to the media-network cards of this machine. C11 or later, or C++11 or later.
 *
 *     kiv_log_config_t log = {KIV_LOG_LEVEL_INFO};
 *     kiv_open(&log);
 *     kiv_scan_t found;
 *     if (kiv_scan(&found) == KIV_OK) { ... found.devices[0 .. found.count - 1] ... }
 *     kiv_close();
 *
 * Rules
 *
 * 1. Life cycle. kiv_open loads the card configuration; kiv_scan finds the cards and starts watching them;
 *    the calls for one card work until the next kiv_scan or kiv_close. After kiv_close a scan may follow
 *    without a new open. A process may also just end (rule 9). Cards are looked for by a scan only. A card
 *    that was out of its slot, or whose driver was restarted, may answer no call and raise no event after its
 *    return: scan again. A scan ends all registrations of callbacks and enabled events: register and enable
 *    anew after it.
 * 2. Device ids. A card is named by the one-byte id that the scan gave for it. A call for one card checks, in
 *    this order: that a scan has been made (else KIV_ERR_NOT_OPENED), that it found this id (else
 *    KIV_ERR_NO_DEVICE), its pointers (rule 5); then it asks the card.
 * 3. Records. The caller owns every record, zeroes it before the call, and keeps it: the library stores no
 *    pointer. A getter writes only the fields that it has values for. The arrays of the scan records belong
 *    to the library and last until the next scan or close.
 * 4. Result codes. Every function returns KIV_OK or a code of kiv_types.h (kiv_get_epoch_and_2point also the
 *    driver's status); kiv_result_name and kiv_result_text make words of it. A query or command also returns
 *    KIV_ERR_FAILED when the management server's answer does not have the expected shape. No exception leaves
 *    a function, except kiv_open and kiv_configure_save, which say what they throw.
 * 5. Null pointers. A getter with a null output does nothing and returns KIV_OK. Where a pointer is required,
 *    null is logged as "Argument is NULL" and returns KIV_ERR_NULL_ARGUMENT.
 * 6. Threads. Calls for cards may be made from several threads at once. kiv_open, kiv_scan, kiv_scan_internal
 *    and kiv_close must not run at the same time as any other call but those of kivLog.h. A program that
 *    breaks this does no harm, but cannot rely on the results: a call for a card that meets a scan or a close
 *    returns some code, and two scans wait for each other.
 *
 *    Waiting. A call may wait for the card's management server: about 7 seconds for each request that gets no
 *    answer (three attempts of 2 seconds each, and the pauses between them); kiv_write_flash_image about 30
 *    seconds for the upload alone. A call also waits for the driver, as long as that takes: it does not
 *    return while the driver's process hangs. kiv_close and a scan wait for the event callbacks that run, and
 *    for the request or driver call that the watching of a card is in. So hold no lock that a callback takes.
 *
 *    A thread must not be cancelled (pthread_cancel) inside a call, nor end itself (pthread_exit) inside a
 *    callback: that ends the process, or leaves the library's locks taken.
 * 7. Event callbacks run on worker threads of the library, four for all cards together. Keep them short: one
 *    that takes long holds up the events of all cards. A callback may run until kiv_close, or the card's
 *    kiv_unregister_callback_func, has returned. In C++ call one of them before main returns: after that,
 *    objects that a callback uses are destroyed. An exception that leaves a callback is dropped; the
 *    callbacks after it are not called for this event.
 *
 *    In a callback, and in any job of a PeriodicThreadPool, kiv_scan and kiv_scan_internal return
 *    KIV_ERR_FAILED and kiv_close KIV_OK, all without doing anything: they would wait for their own thread.
 *    Log callbacks run on the thread that logs, also in the midst of a scan or of an event callback, and must
 *    call none of these, nor the event functions.
 *
 *    The library's threads block all signals but those that report a fault of the thread itself (SIGSEGV and
 *    its like). A program that a callback starts inherits this signal mask.
 * 8. Versions. Records grow only with a new major version of the library, while that is 0 also with a minor
 *    one. kiv_version.h tells the version of the headers, kiv_get_sw_version that of the library.
 * 9. Processes. After a fork only the process that made the first scan, or called kivDext_new first, may use
 *    the library. In a child of it the calls for cards, kiv_open, kiv_scan, kiv_scan_internal, kiv_close,
 *    kiv_configure_save and kiv_log_print return KIV_ERR_NOT_OPENED, and kivDext_new returns 1; call no other
 *    function there, and none of kivLog.h. A child may exit, or execute another program. A process that has
 *    not scanned yet may fork first, and scan in the child.
 *
 *    exit(), and so the return from main, counts as a close: it ends the library's threads and callbacks.
 *    Calls for cards and scans that come later return KIV_ERR_NOT_OPENED; a late kiv_close has nothing left
 *    to do. It waits about 10 seconds at most, for callbacks, requests and driver calls under way; for the
 *    scan or close of another thread, and when it is called on a worker thread of the library, one second.
 *    What has not ended then, and a scan inside which exit() is called, ends with the process. The TLS and
 *    HTTP libraries have exit handlers of their own. A request that another thread has under way at exit is
 *    in their hands: end such threads first.
 *
 *    After dlclose the library stays loaded.
 */
#ifndef KIV_API_H
#define KIV_API_H

#include <stdint.h>

#include <kiv/kivLog.h>
#include <kiv/kiv_types.h>
#include <kiv/kiv_version.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Life cycle --------------------------------------------------------------------------------------- */

/*
 * Opens the log with the application's settings and loads the card configuration from
 * "/Library/Application Support/Velmora/config/hps_boot.json". No card is touched. Returns KIV_OK.
 *
 * Log: lines go to the library's back end from now on; a log callback of the application is removed, so that
 * kivLog_open has to follow to set it again. A null `log_config` keeps level, destination and callback as
 * they are.
 *
 * Throws std::runtime_error, with a text that says why, when the file cannot be read, parsed or converted:
 * the configuration loaded before stays. Throws std::bad_alloc when memory runs out. With a null
 * `log_config`, an exception of the log callback that stays leaves kiv_open too.
 */
KIV_API kiv_result_t kiv_open(const kiv_log_config_t* log_config);

/*
 * Ends what the scan started: the watching of the cards, their management-server clients and their records.
 * Waits for event callbacks, and for a request under way (rule 6). The connections to the driver end at the
 * next scan or with the process. Without a scan, or a second time, it only empties the list of found cards.
 * Returns KIV_OK.
 */
KIV_API kiv_result_t kiv_close(void);

/* Writes the version of the library that runs (rule 8). A null pointer is ignored. Returns KIV_OK. */
KIV_API kiv_result_t kiv_get_sw_version(kiv_sw_version_t* version);

/*
 * Writes the card configuration in memory over its file. Call it only after a kiv_open that returned: before
 * that the configuration is empty, and an empty one replaces the file's. The file also loses the keys that
 * the library does not know. Among them is "hps_access", how to reach a card's management server: without it
 * hpsClient::open_config_ifname and open_config_ipaddr do not find the server.
 *
 * Returns KIV_OK whatever becomes of the bytes. Throws std::runtime_error when the file cannot be opened for
 * writing or a text is not UTF-8, and std::bad_alloc when memory runs out.
 */
KIV_API kiv_result_t kiv_configure_save(void);

/*
 * Writes a line of the application into the library's log. `message` is a format text: braces stand for
 * placeholders, "{{" and "}}" for braces (kivLog_print takes a text as it stands). KIV_ERR_FAILED, with
 * nothing written, for a format that needs arguments or is malformed; KIV_ERR_NULL_ARGUMENT for null. A
 * message whose level is not wanted is not looked at.
 */
KIV_API kiv_result_t kiv_log_print(kiv_log_level_t level, const char* message);

/* ---- Discovery ---------------------------------------------------------------------------------------- */

/*
 * Finds the cards, opens each one's driver functions and management server, and starts watching them. Ends an
 * earlier scan first: registrations and enabled events end with it, callbacks and requests under way are
 * waited for (rule 6). On success `scan` lists the cards. Their order has no meaning, and may differ from
 * scan to scan. No card is a success with count 0; then "Fail open device" is printed on standard output.
 *
 * A later scan connects to the driver anew. Then it takes leave of the driver on the connections of the scan
 * before, and announces the process again. The leave may end the announcement of the whole process: a
 * kivDriverClient that the application keeps open calls its init() again after the scan.
 *
 * KIV_ERR_NULL_ARGUMENT for null. KIV_ERR_FAILED when a card cannot be opened or does not give its identity
 * and addresses (the log says which): no card is listed then; those opened before it answer calls, others may
 * not.
 *
 * Opening a card sends the log back to its back end, at level info, and removes the application's log
 * callback.
 */
KIV_API kiv_result_t kiv_scan(kiv_scan_t* scan);

/*
 * As kiv_scan, with the tunnel endpoint of each card. The tunnel entries of all such scans of the process are
 * kept in one list, and `internal` points at its start: only the first one reports current values. Results as
 * kiv_scan.
 */
KIV_API kiv_result_t kiv_scan_internal(kiv_scan_internal_t* scan);

/*
 * As kiv_scan_internal, but a card that cannot be opened hides no other: `scan` lists every card with a
 * result of its own, by ascending id. Calls work for the cards whose result is KIV_OK. The others have
 * KIV_ERR_FAILED (the driver fails; the management server's answer has wrong types, or an address that is
 * none) or KIV_ERR_REST (the server cannot be reached, or refuses; its answer is no JSON, or names no
 * interfaces). Calls for them fail, but for those that ask the driver alone. The cards are opened at the
 * same time: a server that hangs delays this call by its own 7 seconds, however many do.
 *
 * `limit_ms`, when it is not 0, is how long the opening may take: a card that has not answered then has
 * KIV_ERR_BUSY, and calls for it may wait as this one would have. Until its driver answers, the next scan and
 * kiv_close may wait for it, too.
 *
 * `only`, when it is not null, is the id of the one card to open and watch: no other is listed, or waited
 * for.
 *
 * KIV_ERR_NULL_ARGUMENT for a null `scan`. KIV_ERR_FAILED when the cards cannot be looked for at all.
 */
KIV_API kiv_result_t kiv_scan_each(const uint8_t* only, uint32_t limit_ms, kiv_scan_each_t* scan);

/*
 * Id of the card that is selected as PTP source. KIV_ERR_FAILED when none is, or before a scan;
 * KIV_ERR_NULL_ARGUMENT for null. Nobody outside the library can set the selection that this looks for, and
 * the driver does not report one: today it fails with KIV_ERR_FAILED for every application, and says nothing
 * about the cards.
 */
KIV_API kiv_result_t kiv_get_id_selected_ptp_card(uint8_t* device_id);

/* ---- Queries of one card ------------------------------------------------------------------------------ */

/*
 * Identity: registers through the driver, MAC addresses as the card listed them at the scan. KIV_ERR_FAILED
 * when a register cannot be read; nothing is written then.
 */
KIV_API kiv_result_t kiv_get_card_info(uint8_t device_id, kiv_card_info_t* info);

/*
 * Addresses and prefix lengths of the media ports, asked of the card's management server. Fields of a port
 * that the card does not list, VLAN fields and fillers stay as they are. An address that is not four numbers
 * from 0 to 255 is written as 0; with three dots in it, it also leaves a line on standard error. KIV_ERR_REST
 * when the server does not answer; nothing is written then. KIV_ERR_FAILED when its answer cannot be read, a
 * netmask that is not made of numbers for instance: addresses and the other port's fields may have been
 * written then.
 */
KIV_API kiv_result_t kiv_get_media_net_config(uint8_t device_id, kiv_net_config_t* config);

/* The same as kiv_get_media_net_config: PTP runs over the media ports. */
KIV_API kiv_result_t kiv_get_ptp_net_config(uint8_t device_id, kiv_net_config_t* config);

/*
 * Temperatures and board power, asked of the card's management server, in the units of its report; and the
 * PCI link, asked of the driver: without an answer of the driver `pci_link_a` is 0 and `pci_link_b` stays.
 * The first value of each sensor stays too. A sensor that the card does not report has the values 0.
 * KIV_ERR_REST when the server does not answer, KIV_ERR_FAILED when its report cannot be read; nothing is
 * written then.
 */
KIV_API kiv_result_t kiv_get_card_status(uint8_t device_id, kiv_card_status_t* status);

/*
 * Link and load of the media ports, from registers. A load is counter / reference x 2 x 100 percent in
 * floating point; with a reference of 0 it is infinite, or not a number when the counter is 0 too. Only the
 * value 1 is written to the link fields: zero the record first. KIV_ERR_FAILED when a register cannot be
 * read; links that are up may be written then.
 */
KIV_API kiv_result_t kiv_get_net_status(uint8_t device_id, kiv_net_status_t* status);

/*
 * PTP settings: those last applied to the card by kiv_set_ptp_config since the scan, else those of the card
 * configuration. `port_params` stays when the configuration has no entry for the card. Asks nobody.
 */
KIV_API kiv_result_t kiv_get_ptp_config(uint8_t device_id, kiv_ptp_config_t* config);

/*
 * PTP state (from a register; untouched when no state bit is set), time (from the driver) and master (asked
 * of the management server). KIV_ERR_FAILED when a register or the time cannot be read, or the master's
 * identity is not 1 to 16 hexadecimal digits; KIV_ERR_REST when the server does not answer. State and time
 * may be written then.
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
 * With one null pointer or more it does nothing and returns KIV_OK. On failure it returns the driver's own
 * status, 0xFFFFFFFF without a connection to the driver, or KIV_ERR_FAILED for a card without PCI function 0;
 * the three are 0 then. They stay as they are when no scan has found the card.
 */
KIV_API kiv_result_t kiv_get_epoch_and_2point(uint8_t device_id, uint64_t* epoch, uint64_t* point_1,
                                              uint64_t* point_2);

/* ---- Settings of one card ----------------------------------------------------------------------------- */

/*
 * Applies network and PTP settings to the card, through its management server, and keeps them in the card
 * configuration in memory: addresses, masks, TOS and TTL in the card's entries, and the five global PTP
 * values, which all cards share. kiv_configure_save writes them to the file. Both pointers are required.
 *
 * VLANs: a port whose `vlan_enable` is 0 gets none. A card does not tell its VLANs, so that a record that was
 * zeroed and then filled by kiv_get_media_net_config switches them off: set `vlan_enable` and `vlan_id`
 * before applying it.
 *
 * KIV_ERR_REST when the server does not answer or refuses; KIV_ERR_FAILED, with nothing sent, when the driver
 * does not tell the card's tunnel address. The configuration stays then.
 */
KIV_API kiv_result_t kiv_set_ptp_config(uint8_t device_id, const kiv_net_config_t* net,
                                        const kiv_ptp_config_t* ptp);

/* ---- Flash of one card -------------------------------------------------------------------------------- */

/*
 * Uploads the firmware image in the file `path`, which is read into memory, and starts its write. Returns
 * when the card has begun, or after ten looks at its state, a tenth of a second apart. The card goes on by
 * itself: kiv_get_flash_write_status tells when it is idle again. KIV_ERR_BUSY while the card is not idle
 * (looked at before the path); KIV_ERR_NULL_ARGUMENT for a null path; KIV_ERR_REST when the file is not a
 * regular one or cannot be read, and when the server does not answer or refuses.
 */
KIV_API kiv_result_t kiv_write_flash_image(uint8_t device_id, const char* path);

/*
 * As kiv_write_flash_image. `progress`, which may be null, is told of the upload as it goes on: how many of
 * the bytes to send are handed to the network, on the calling thread, at least once a second. A further
 * attempt begins at 0 again.
 */
KIV_API kiv_result_t kiv_write_flash_image_with_progress(uint8_t device_id, const char* path,
                                                         kiv_upload_progress_t progress, void* user);

/* 0 when the card's flash is idle, 1 while it is written or switched. KIV_ERR_REST without an answer. */
KIV_API kiv_result_t kiv_get_flash_write_status(uint8_t device_id, kiv_flash_status_t* status);

/*
 * Chooses the slot, 0 or 1, whose image the card boots next. KIV_ERR_INVALID_PARAM for another number
 * (nothing is sent); KIV_ERR_NULL_ARGUMENT for null; KIV_ERR_REST when the server does not answer or refuses.
 */
KIV_API kiv_result_t kiv_select_flash_slot(uint8_t device_id, const kiv_flash_slot_t* slot);

/*
 * Identifiers of the images in both slots, and the slot that boots next. KIV_ERR_REST when the server does
 * not answer; KIV_ERR_FAILED, with nothing written, when it sends other than 32 hexadecimal digits for each.
 */
KIV_API kiv_result_t kiv_get_flash_config(uint8_t device_id, kiv_flash_config_t* config);

/* ---- Events of one card ------------------------------------------------------------------------------- */

/*
 * Adds a callback for the card's enabled events; one that is added twice is called twice. It runs on a worker
 * thread and must be short (rule 7); `data` is valid during the call. In it, queries and commands may be
 * called for any card, but none of these four functions, for any card. They wait for a callback that runs, so
 * hold no lock that a callback takes when calling them. KIV_ERR_NULL_ARGUMENT for a null callback; `user` may
 * be null. Registrations end with the next scan or close (rule 1), or with kiv_unregister_callback_func: call
 * it, or kiv_close, before what `user` points to goes.
 */
KIV_API kiv_result_t kiv_register_callback_func(uint8_t device_id, kiv_event_callback_t callback, void* user);

/* Removes all callbacks of the card. None runs any more when this returns. */
KIV_API kiv_result_t kiv_unregister_callback_func(uint8_t device_id);

/*
 * Switches one event of the card on or off, until the next scan or close. KIV_EVENT_LINK and KIV_EVENT_PTP
 * are looked at every second, and raised for what changed since they were last seen (at first: no link, state
 * 0). KIV_EVENT_HWMON is looked at every 60 seconds, and raised while a sensor is at or above its maximum.
 * That is also so for a sensor that the card does not report, whose values are 0, and for all sensors when
 * the card's report cannot be read. While an event is off nothing is looked at. A change that is seen while
 * no callback is registered is not reported again: register first. Other numbers are accepted and never
 * raised.
 */
KIV_API kiv_result_t kiv_enable_event(uint8_t device_id, kiv_event_type_t event);
KIV_API kiv_result_t kiv_disable_event(uint8_t device_id, kiv_event_type_t event);

#ifdef __cplusplus
}
#endif

#endif
