/// What the callers of the soak do: each kind of call, with the codes that its documentation names.
#ifndef KIV_TEST_SOAK_CALLS_H
#define KIV_TEST_SOAK_CALLS_H

#include <kiv/hpsClient.h>
#include <kiv/kivDriverClient.h>
#include <kiv/kiv_api.h>
#include <mach/mach.h>

#include <deque>
#include <map>
#include <mutex>
#include <random>
#include <set>

#include "support/Test.h"

using Random = std::mt19937;

/// 0 to `count` - 1.
inline unsigned below(unsigned count, Random& random) {
    return std::uniform_int_distribution<unsigned>(0, count - 1)(random);
}

constexpr uint8_t kCards = 4;  ///< Their ids are 1 to 4.

/// Path of a firmware image.
inline std::string g_image;

/// What else happens, by its kind.
inline std::mutex g_counting;
inline std::map<std::string, long> g_counts;  ///< Under the mutex.

inline void count(const std::string& kind) {
    const std::lock_guard lock(g_counting);
    ++g_counts[kind];
}

/// Notification ports that were made: each stays, with some 0.35 KiB.
inline std::atomic<long> g_ports{0};

/// Those of one card, from several threads at once: a query gives KIV_OK when everything is well. And those
/// that the rules want alone, for one thread.
enum Kind { kQuery, kChange, kAlone };

struct Call {
    const char* name;
    unsigned weight;  ///< How often it is chosen, in comparison with the others.
    Kind kind;
    kiv_result_t (*make)(uint8_t id, Random& random);
    std::set<kiv_result_t> codes;
    bool drivers = false;  ///< The driver's own statuses are documented too.
    std::atomic<long> made{0}, good{0};
};

constexpr kiv_result_t kOk = KIV_OK, kNone = KIV_ERR_NOT_OPENED, kGone = KIV_ERR_NO_DEVICE,
                       kFailed = KIV_ERR_FAILED, kRest = KIV_ERR_REST;

/// A result of what is no call of the C interface: it threw, which its documentation allows.
constexpr kiv_result_t kThrew = 1;

/// What a callback's user pointer points at.
struct Registration {
    uint8_t id;
    std::atomic<bool> ended{false};
};

/// Registering and what ends registrations exclude one another: else nobody knows which one came first.
inline std::mutex g_registering;
inline std::deque<Registration> g_registrations;

inline void on_event(uint8_t id, kiv_event_type_t type, const void* data, void* user) {
    const auto& registration = *static_cast<const Registration*>(user);
    EXPECT_FALSE(registration.ended) << "called after its removal";
    EXPECT_EQ(id, registration.id);
    EXPECT_TRUE(type <= KIV_EVENT_PTP && data != nullptr);
    count("events");
    kiv_scan_t scan{};
    kiv_card_status_t status{};
    EXPECT_EQ(kiv_scan(&scan), KIV_ERR_FAILED);
    EXPECT_EQ(kiv_close(), KIV_OK);
    kiv_get_card_status(id, &status);
}

template <auto entry_point, typename Record>
inline kiv_result_t query(uint8_t id, Random&) {
    Record record{};
    return entry_point(id, &record);
}

inline kiv_result_t set_ptp(uint8_t id, Random& random) {
    kiv_net_config_t net{};
    const kiv_ptp_config_t ptp{{3, static_cast<int8_t>(below(128, random)), 1, -3}, 1, {1, 2, 3, 4}};
    kiv_get_media_net_config(id, &net);
    return kiv_set_ptp_config(id, &net, &ptp);
}

inline kiv_result_t read_times(uint8_t id, Random&) {
    uint64_t times[3];
    return kiv_get_epoch_and_2point(id, &times[0], &times[1], &times[2]);
}

inline kiv_result_t select_slot(uint8_t id, Random& random) {
    const auto slot = static_cast<kiv_flash_slot_t>(below(3, random));
    return kiv_select_flash_slot(id, &slot);
}

inline kiv_result_t write_flash(uint8_t id, Random& random) {
    if (below(2, random) == 0) return kiv_write_flash_image(id, g_image.c_str());
    const kiv_upload_progress_t told = [](uint64_t sent, uint64_t total, void* user) {
        EXPECT_TRUE(sent <= total && user == &g_image);
    };
    return kiv_write_flash_image_with_progress(id, g_image.c_str(), told, &g_image);
}

inline kiv_result_t register_callback(uint8_t id, Random&) {
    const std::unique_lock lock(g_registering, std::try_to_lock);
    if (!lock.owns_lock()) return KIV_OK;
    Registration& registration = g_registrations.emplace_back();
    registration.id = id;
    return kiv_register_callback_func(id, on_event, &registration);
}

inline kiv_result_t unregister_callback(uint8_t id, Random&) {
    const std::unique_lock lock(g_registering, std::try_to_lock);
    if (!lock.owns_lock()) return KIV_OK;
    const kiv_result_t result = kiv_unregister_callback_func(id);
    for (Registration& registration : g_registrations)
        if (result == KIV_OK && registration.id == id) registration.ended = true;
    return result;
}

template <auto entry_point>
inline kiv_result_t any_event(uint8_t id, Random& random) {
    return entry_point(id, static_cast<kiv_event_type_t>(below(3, random)));
}

/// Buffers, a BAR, messages of interrupts.
inline kiv_result_t use_driver(uint8_t, Random& random) {
    const kivDriverClientList clients = kivDriverClient::enumerateDevices(KIV_DRIVER_SERVICE_NAME);
    if (clients.empty()) return KIV_OK;
    kivDriverClient& client = *clients[below(static_cast<unsigned>(clients.size()), random)];
    std::atomic<bool> closed{false};
    client.set_callback([&closed](const InterruptEvent&) {
        EXPECT_FALSE(closed) << "a message after the close";
        count("interrupt messages");
    });
    // Seldom with interrupts: each time leaves a notification port behind, for good, because the driver may
    // hold its name.
    const bool interrupts = below(8, random) == 0;
    int32_t result = client.open(interrupts);
    if (interrupts) ++g_ports;
    if (result == 0 && interrupts) result = client.enable_interrupt(1);
    const uint32_t block = 0x1000 + below(0x1000, random);
    dextBuffer buffer{};
    if (client.allocate_buffer(block, 4096, 1 + below(8, random)) == 0 &&
        client.get_buffer(block, buffer) == 0) {
        std::memset(reinterpret_cast<void*>(buffer.infos[0].mapped_address), 0x5A,
                    buffer.infos[0].mapped_size);
        if (below(2, random) == 0) client.free_buffer(block);
    }
    uint64_t bar = 0;
    if (client.map_pci(0, &bar, nullptr) == 0) client.unmap(bar);
    client.set_callback(nullptr);
    closed = true;
    client.close();
    return static_cast<kiv_result_t>(result);
}

/// With its threads.
inline kiv_result_t use_server(uint8_t id, Random&) try {
    for (const auto& device : kivDriverClient::enumerateDevices(KIV_DRIVER_SERVICE_NAME)) {
        kivDriverClient::device_conf_t conf{};
        if (device->get_device_conf(conf) != 0 || conf.device_index != id || conf.tun == 0) continue;
        hpsClient client;
        std::string text;
        hps_ptp_sm digest;
        if (client.open_config("127.0.0.1", std::to_string(conf.port), true) != 0) break;
        client.get_hwmon_info(text, false);
        client.get_hps_ptp_sm_backgroud(digest);
        return static_cast<kiv_result_t>(client.get_ptp_master(text));
    }
    return KIV_OK;
} catch (const std::exception&) {
    return kThrew;
}

/// The registrations end with it.
template <typename End>
inline kiv_result_t ending(End end) {
    const std::lock_guard lock(g_registering);
    const kiv_result_t result = end();
    for (Registration& registration : g_registrations)
        registration.ended = true;
    return result;
}

template <auto entry_point, typename Record>
inline kiv_result_t scan(uint8_t, Random&) {
    Record record{};
    const kiv_result_t result = ending([&] { return entry_point(&record); });
    EXPECT_LE(record.count, kCards);
    return result;
}

inline kiv_result_t scan_each(uint8_t id, Random& random) {
    kiv_scan_each_t record{};
    const uint8_t* const only = below(3, random) == 0 ? &id : nullptr;
    const uint32_t limit = below(2, random) * 300;
    const kiv_result_t result = ending([&] { return kiv_scan_each(only, limit, &record); });
    for (uint32_t i = 0; i < record.count; ++i) {
        const std::set<kiv_result_t> codes = {kOk, kFailed, kRest, KIV_ERR_BUSY};
        EXPECT_TRUE(codes.contains(record.cards[i].result)) << record.cards[i].result;
    }
    return result;
}

/// Whether the card configuration is the test's own.
inline std::atomic<bool> g_own_configuration{false};

inline kiv_result_t save(uint8_t, Random&) {
    return g_own_configuration ? kiv_configure_save() : KIV_OK;
}

inline kiv_result_t open_library(uint8_t, Random&) try {
    const kiv_log_config_t config{KIV_LOG_LEVEL_ERROR};
    return kiv_open(&config);
} catch (const std::runtime_error&) {
    return kThrew;  // Another thread saves it at the moment.
}

// clang-format off
inline Call g_calls[] = {
    {"card info",       60, kQuery,  query<kiv_get_card_info, kiv_card_info_t>,                 {kOk, kNone, kGone, kFailed}},
    {"card status",     40, kQuery,  query<kiv_get_card_status, kiv_card_status_t>,             {kOk, kNone, kGone, kFailed, kRest}},
    {"media network",   40, kQuery,  query<kiv_get_media_net_config, kiv_net_config_t>,         {kOk, kNone, kGone, kFailed, kRest}},
    {"PTP network",     20, kQuery,  query<kiv_get_ptp_net_config, kiv_net_config_t>,           {kOk, kNone, kGone, kFailed, kRest}},
    {"network status",  60, kQuery,  query<kiv_get_net_status, kiv_net_status_t>,               {kOk, kNone, kGone, kFailed}},
    {"PTP settings",    20, kQuery,  query<kiv_get_ptp_config, kiv_ptp_config_t>,               {kOk, kNone, kGone}},
    {"PTP status",      40, kQuery,  query<kiv_get_ptp_status, kiv_ptp_status_t>,               {kOk, kNone, kGone, kFailed, kRest}},
    {"transmit",        40, kQuery,  query<kiv_get_tx_stream_status, kiv_tx_stream_status_t>,   {kOk, kNone, kGone, kFailed}},
    {"receive",         40, kQuery,  query<kiv_get_rx_stream_status, kiv_rx_stream_status_t>,   {kOk, kNone, kGone, kFailed}},
    {"flash state",     20, kQuery,  query<kiv_get_flash_write_status, kiv_flash_status_t>,     {kOk, kNone, kGone, kFailed, kRest}},
    {"flash slots",     20, kQuery,  query<kiv_get_flash_config, kiv_flash_config_t>,           {kOk, kNone, kGone, kFailed, kRest}},
    {"times",           40, kQuery,  read_times,                                                {kOk, kNone, kGone, kFailed}, true},
    {"set PTP",         10, kChange, set_ptp,                                                   {kOk, kNone, kGone, kFailed, kRest}},
    {"select slot",     10, kChange, select_slot,                                               {kOk, kNone, kGone, kFailed, kRest, KIV_ERR_INVALID_PARAM}},
    {"write flash",      4, kChange, write_flash,                                               {kOk, kNone, kGone, kFailed, kRest, KIV_ERR_BUSY}},
    {"register",        20, kChange, register_callback,                                         {kOk, kNone, kGone}},
    {"unregister",      10, kChange, unregister_callback,                                       {kOk, kNone, kGone}},
    {"enable event",    30, kChange, any_event<kiv_enable_event>,                               {kOk, kNone, kGone}},
    {"disable event",   10, kChange, any_event<kiv_disable_event>,                              {kOk, kNone, kGone}},
    {"selected card",   10, kChange, [](uint8_t, Random&) { uint8_t id = 0; return kiv_get_id_selected_ptp_card(&id); }, {kFailed}},
    {"unknown card",    10, kChange, [](uint8_t, Random& r) { return query<kiv_get_card_info, kiv_card_info_t>(200, r); }, {kNone, kGone}},
    {"save",             2, kChange, save,                                                      {kOk}},
    {"log line",        10, kChange, [](uint8_t, Random&) { return kiv_log_print(KIV_LOG_LEVEL_DEBUG, "soak"); }, {kOk}},
    {"driver client",    4, kChange, use_driver,                                                {kOk, 0xFFFFFFFFu}, true},
    {"server client",    4, kChange, use_server,                                                {kOk, 0xFFFFFFFFu, kThrew}},
    {"scan",             2, kAlone,  scan<kiv_scan, kiv_scan_t>,                                {kOk, kFailed}},
    {"internal scan",    2, kAlone,  scan<kiv_scan_internal, kiv_scan_internal_t>,              {kOk, kFailed}},
    {"scan of each",     6, kAlone,  scan_each,                                                 {kOk, kFailed}},
    {"close",            1, kAlone,  [](uint8_t, Random&) { return ending(kiv_close); },        {kOk}},
    {"open",             1, kAlone,  open_library,                                              {kOk, kThrew}},
};
// clang-format on

/// Chooses by weight, makes the call, and fails the test when the code is none of its own.
inline void make_one(bool alone, Random& random) {
    std::vector<unsigned> weights;
    for (const Call& call : g_calls)
        weights.push_back((call.kind == kAlone) == alone ? call.weight : 0);
    Call& call = g_calls[std::discrete_distribution<std::size_t>(weights.begin(), weights.end())(random)];
    const kiv_result_t result = call.make(static_cast<uint8_t>(1 + below(kCards, random)), random);
    ++call.made;
    if (result == KIV_OK) ++call.good;
    const bool of_driver = call.drivers && (result >> 28 == 0xE || result == MACH_SEND_INVALID_DEST);
    EXPECT_TRUE(of_driver || call.codes.contains(result)) << call.name << " gave " << std::hex << result;
    if (result != KIV_OK) std::this_thread::sleep_for(std::chrono::milliseconds(2));
}

#endif
