/*
 * Result codes and records of the kiv C interface. C11 or later, or C++11 or later; kiv_api.h includes this
 * file, so an application includes only kiv_api.h.
 *
 * All records are plain, native (little-endian, naturally aligned) structures. The library owns no memory
 * that a record points to, except the arrays of the two scan records. A getter writes only the fields that
 * its comment names: zero a record before handing it over.
 */
#ifndef KIV_TYPES_H
#define KIV_TYPES_H

#if !defined(__cplusplus) && (!defined(__STDC_VERSION__) || __STDC_VERSION__ < 201112L)
#error "kiv needs C11 or later (-std=c11), or C++"
#endif

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#include <kiv/kiv_export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Result codes ------------------------------------------------------------------------------------ */

/*
 * Result of every entry point: 0, or a failure with 0xC1 in bits 24 to 31 and a code number in bits 8 to 15.
 * kiv_get_epoch_and_2point also gives statuses of the driver.
 */
typedef uint32_t kiv_result_t;

/* clang-format off */
#define KIV_OK                 ((kiv_result_t)0x00000000u)
#define KIV_ERR_NOT_OPENED     ((kiv_result_t)0xC1000300u)
#define KIV_ERR_NO_DEVICE      ((kiv_result_t)0xC1000400u)
#define KIV_ERR_BUSY           ((kiv_result_t)0xC1000700u)
#define KIV_ERR_INVALID_PARAM  ((kiv_result_t)0xC1000800u)
#define KIV_ERR_NULL_ARGUMENT  ((kiv_result_t)0xC1000900u)
#define KIV_ERR_REST           ((kiv_result_t)0xC1000A00u)
#define KIV_ERR_FAILED         ((kiv_result_t)0xC1000D00u)
#define KIV_ERR_LOG_BUSY       ((kiv_result_t)0xC1001B00u)

/* What each code means: ROW(code, text) for every one of them. */
#define KIV_RESULT_CODES(ROW)                                                                     \
    ROW(KIV_OK,                "success")                                                         \
    ROW(KIV_ERR_NOT_OPENED,    "no scan since the last close; or a fork's child, or at exit")     \
    ROW(KIV_ERR_NO_DEVICE,     "the last scan found no card with this id")                        \
    ROW(KIV_ERR_BUSY,          "the card's flash is being written or switched")                   \
    ROW(KIV_ERR_INVALID_PARAM, "a flash slot other than 0 and 1")                                 \
    ROW(KIV_ERR_NULL_ARGUMENT, "a required pointer is null")                                      \
    ROW(KIV_ERR_REST,          "the card's management server did not answer, or refused")         \
    ROW(KIV_ERR_FAILED,        "the driver failed, an answer is unreadable, no card is selected") \
    ROW(KIV_ERR_LOG_BUSY,      "a log callback is still running")
/* clang-format on */

/* The code's name, such as "KIV_ERR_BUSY"; "unknown" for any other number. A text that lasts for ever. */
static __inline__ const char* kiv_result_name(kiv_result_t code) {
    switch (code) {
#define KIV_ROW(result, text) \
    case result:              \
        return #result;
        KIV_RESULT_CODES(KIV_ROW)
#undef KIV_ROW
        default:
            return "unknown";
    }
}

/* What the code means, for a person; any other number is the driver's. A text that lasts for ever. */
static __inline__ const char* kiv_result_text(kiv_result_t code) {
    switch (code) {
#define KIV_ROW(result, text) \
    case result:              \
        return text;
        KIV_RESULT_CODES(KIV_ROW)
#undef KIV_ROW
        default:
            return "not a code of the library: a status of the driver";
    }
}

/* ---- Records ----------------------------------------------------------------------------------------- */

/* Version of this library. */
typedef struct kiv_sw_version_t {
    uint8_t major;
    uint8_t minor;
    uint8_t revision;
} kiv_sw_version_t;

/* One QSFP port in kiv_card_info_t. */
typedef struct kiv_card_port_t {
    /* As the card writes it, "xx:xx:xx:xx:xx:xx", at most 17 characters and a terminator; untouched when the
     * card does not list the port. */
    char mac_address[20];
    uint32_t link_speed_gbps; /* Gbit/s, always 100. */
} kiv_card_port_t;

/* Identity of a card. */
typedef struct kiv_card_info_t {
    uint64_t reg_00;         /* Identification registers: BAR 0 of PCI function 0, offset 0x00, ... */
    uint64_t reg_08;         /* ... 0x08, ... */
    uint64_t reg_10;         /* ... 0x10 (the card word of the scan), ... */
    uint64_t reg_18;         /* ... and 0x18. */
    uint32_t reserved;       /* Always 0. */
    kiv_card_port_t port[2]; /* Port 0 is the interface "maceth0", port 1 "maceth1". */
} kiv_card_info_t;

/* Media network settings of port 0 (392 bytes). */
typedef struct kiv_net_port_0_t {
    uint32_t ip_address_0;    /* IPv4, host order, first octet in the most significant byte. */
    uint32_t prefix_length_0; /* One bits of the netmask, 0 to 32; a query counts them wherever they are. */
    uint8_t vlan_enable;      /* Non-zero: the port uses a VLAN. */
    uint8_t filler_9[7];
    uint16_t vlan_id; /* VLAN id in the low 12 bits. */
    uint8_t filler_18[374];
} kiv_net_port_0_t;

/* Media network settings of port 1 (392 bytes); fields as for port 0. */
typedef struct kiv_net_port_1_t {
    uint32_t ip_address_1;
    uint32_t prefix_length_1;
    uint8_t vlan_enable;
    uint8_t filler_9[7];
    uint16_t vlan_id;
    uint8_t filler_18[374];
} kiv_net_port_1_t;

/*
 * Media network settings of both ports. The queries write addresses and prefix lengths only: a card does not
 * tell its VLANs. The fillers are neither read nor written.
 */
typedef struct kiv_net_config_t {
    kiv_net_port_0_t port_0;
    kiv_net_port_1_t port_1;
} kiv_net_config_t;

/* Link and load of both ports. Only the value 1 is ever written to the link fields: zero the record first. */
typedef struct kiv_net_status_t {
    uint32_t link_up_0; /* 1 when port 0 has link, else untouched. */
    double load_a[2];   /* Percent, port 0 then port 1, from the first counter of each port. */
    uint32_t link_up_1; /* 1 when port 1 has link, else untouched. */
    double load_b[2];   /* Percent, port 0 then port 1, from the second counter of each port. */
} kiv_net_status_t;

/* PTP (IEEE 1588) settings. */
typedef struct kiv_ptp_config_t {
    /* announceReceiptTimeout (announce intervals) and domainNumber, both sent as unsigned numbers: -1 is 255;
     * logAnnounceInterval and logDelayReqInterval (powers of 2, in seconds). */
    int8_t global_params[4];
    uint8_t enabled;        /* Unicast delay requests: non-zero is on. */
    uint8_t port_params[4]; /* maceth0.tos, maceth1.tos, maceth0.ttl, maceth1.ttl. */
} kiv_ptp_config_t;

/* PTP state of a card. */
typedef struct kiv_ptp_status_t {
    uint32_t state;    /* 0, 1 or 3, from bits 8, 9, 10 of the status register; untouched when none is set. */
    uint64_t tai_time; /* PTP TAI time as the driver reports it. */
    uint8_t is_master; /* Non-zero: the master's UTC offset is valid. */
    uint32_t master_value;   /* Current UTC offset of the master, seconds. */
    uint64_t clock_identity; /* Identity of the grandmaster clock. */
} kiv_ptp_status_t;

/* State of the card's flash: 0 idle, 1 a write or switch is under way. */
typedef uint32_t kiv_flash_status_t;

/* A flash slot: 0 or 1. */
typedef int32_t kiv_flash_slot_t;

/* Contents of the two flash slots. */
typedef struct kiv_flash_config_t {
    uint64_t slot0_id[2]; /* 128-bit firmware identifier, high half first. */
    uint64_t slot1_id[2];
    uint32_t next_boot_slot; /* 0 or 1, or 2 when neither slot is marked. */
} kiv_flash_config_t;

/* Use of the transmit or receive streams: control register, resource use and two further registers, a byte
 * each. */
typedef struct kiv_stream_status_t {
    uint8_t control;        /* Low byte of the register at block + 0x004. */
    uint8_t resource_0;     /* First resource value of the driver. */
    uint8_t control_bit_25; /* Bit 25 of the control register. */
    uint8_t control_bit_26; /* Bit 26 of the control register. */
    uint8_t reg_404;        /* Low byte of the register at block + 0x404. */
    uint8_t resource_1;     /* Second resource value. */
    uint8_t reg_804;        /* Low byte of the register at block + 0x804. */
    uint8_t resource_2;     /* Third resource value. */
} kiv_stream_status_t;
typedef kiv_stream_status_t kiv_tx_stream_status_t; /* Use of the transmit streams. */
typedef kiv_stream_status_t kiv_rx_stream_status_t; /* Use of the receive streams. */

/* One temperature sensor. Units are the card's own. */
typedef struct kiv_sensor_t {
    uint32_t reserved; /* Never written by the library. */
    uint32_t input;    /* Reading. */
    uint32_t max;      /* Alarm threshold. */
    uint32_t critical; /* Critical threshold. */
} kiv_sensor_t;

/* Temperatures, power and PCI link of a card. */
typedef struct kiv_card_status_t {
    kiv_sensor_t
        sensor[7];        /* FPGA fabric; board: near FPGA, near CVL, rear, front; QSFP1 case; QSFP2 case. */
    uint32_t board_power; /* In the card's own unit; 0 when the card does not report it. */
    uint8_t pci_link_b;   /* Second value of the driver's PCI link query. */
    uint32_t pci_link_a;  /* First value of the driver's PCI link query. */
} kiv_card_status_t;

/* One card found by a scan. */
typedef struct kiv_scan_card_device_t {
    uint8_t device_id;     /* Names the card in all other calls. */
    uint64_t card_word;    /* reg_10 of kiv_card_info_t. */
    uint32_t ip_address_0; /* Media addresses of the two ports, as in kiv_net_config_t. */
    uint32_t ip_address_1;
} kiv_scan_card_device_t;

/* Result of kiv_scan: `count` entries, owned by the library, valid until the next scan or close. */
typedef struct kiv_scan_t {
    uint8_t count;
    const kiv_scan_card_device_t* devices;
} kiv_scan_t;

/* Tunnel endpoint of a card, as its driver reports it. */
typedef struct kiv_scan_card_device_internal_t {
    uint32_t tunnel_address; /* IPv4, host order. */
    uint32_t tunnel_value;   /* Second value of the tunnel query: TCP port of the card's management server. */
} kiv_scan_card_device_internal_t;

/* Result of kiv_scan_internal: `count` entries in both arrays, owned and valid as in kiv_scan_t. */
typedef struct kiv_scan_internal_t {
    uint8_t count;
    const kiv_scan_card_device_t* devices;
    const kiv_scan_card_device_internal_t* internal;
} kiv_scan_internal_t;

/* One card of kiv_scan_each. */
typedef struct kiv_scan_each_card_t {
    kiv_result_t result;                    /* KIV_OK, or why calls for the card would fail. */
    kiv_scan_card_device_t device;          /* Only the id is set when the result is a failure. */
    kiv_scan_card_device_internal_t tunnel; /* As the driver reports it, whatever the result. */
} kiv_scan_each_card_t;

/* Result of kiv_scan_each: `count` entries, owned and valid as in kiv_scan_t. */
typedef struct kiv_scan_each_t {
    uint32_t count;
    const kiv_scan_each_card_t* cards;
} kiv_scan_each_t;

/* ---- Flash ------------------------------------------------------------------------------------------- */

/* Told how many of an upload's `total` bytes have been sent; the image and some 200 bytes around it. */
typedef void (*kiv_upload_progress_t)(uint64_t sent, uint64_t total, void* user);

/* ---- Events ------------------------------------------------------------------------------------------ */

/* An event that an application enables one by one. */
typedef uint32_t kiv_event_type_t;
enum {
    KIV_EVENT_LINK = 0,  /* Data: kiv_event_link_t. */
    KIV_EVENT_HWMON = 1, /* Data: kiv_event_hwmon_t. */
    KIV_EVENT_PTP = 2 /* Data: one uint32_t, the state as in kiv_ptp_status_t, 0 when no state bit is set. */
};

/* Data of KIV_EVENT_LINK: what changed, and the link as it is now (each 0 or 1). */
typedef struct kiv_event_link_t {
    uint8_t port_0_changed;
    uint8_t port_0_link;
    uint8_t port_1_changed;
    uint8_t port_1_link;
} kiv_event_link_t;

/* Data of KIV_EVENT_HWMON: the sensors in the order of kiv_card_status_t. */
typedef struct kiv_event_hwmon_t {
    struct {
        uint8_t alarm;       /* 1 when input >= max; also for a sensor not reported: its values are 0. */
        kiv_sensor_t sensor; /* As reported; `reserved` is 0. */
    } entry[7];
} kiv_event_hwmon_t;

/* Called on a thread of the library. `data` depends on the event and is valid during the call only. */
typedef void (*kiv_event_callback_t)(uint8_t device_id, kiv_event_type_t event, const void* data, void* user);

/* ---- Layout: fixed, because the library and the application may come from different compilers -------- */

/* A C that is too old has been told so above, and needs no further lines. */
#if defined(__cplusplus) || (defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L)

#ifdef __cplusplus
#define KIV_ALIGNMENT(type) alignof(type)
#else
#define KIV_ALIGNMENT(type) _Alignof(type)
#endif
#define KIV_LAYOUT(type, size, alignment) \
    static_assert(sizeof(type) == (size) && KIV_ALIGNMENT(type) == (alignment), #type " layout")
#define KIV_OFFSET(type, field, offset) static_assert(offsetof(type, field) == (offset), #type "." #field)

/* clang-format off */
KIV_LAYOUT(kiv_sw_version_t, 3, 1);
KIV_LAYOUT(kiv_card_port_t, 24, 4);
KIV_LAYOUT(kiv_card_info_t, 88, 8);
KIV_OFFSET(kiv_card_info_t, reserved, 32);
KIV_OFFSET(kiv_card_info_t, port, 36);
KIV_LAYOUT(kiv_net_port_0_t, 392, 4);
KIV_OFFSET(kiv_net_port_0_t, prefix_length_0, 4);
KIV_OFFSET(kiv_net_port_0_t, vlan_enable, 8);
KIV_OFFSET(kiv_net_port_0_t, vlan_id, 16);
KIV_LAYOUT(kiv_net_port_1_t, 392, 4);
KIV_OFFSET(kiv_net_port_1_t, prefix_length_1, 4);
KIV_OFFSET(kiv_net_port_1_t, vlan_enable, 8);
KIV_OFFSET(kiv_net_port_1_t, vlan_id, 16);
KIV_LAYOUT(kiv_net_config_t, 784, 4);
KIV_OFFSET(kiv_net_config_t, port_1, 392);
KIV_LAYOUT(kiv_net_status_t, 48, 8);
KIV_OFFSET(kiv_net_status_t, load_a, 8);
KIV_OFFSET(kiv_net_status_t, link_up_1, 24);
KIV_OFFSET(kiv_net_status_t, load_b, 32);
KIV_LAYOUT(kiv_ptp_config_t, 9, 1);
KIV_LAYOUT(kiv_ptp_status_t, 32, 8);
KIV_OFFSET(kiv_ptp_status_t, tai_time, 8);
KIV_OFFSET(kiv_ptp_status_t, is_master, 16);
KIV_OFFSET(kiv_ptp_status_t, master_value, 20);
KIV_OFFSET(kiv_ptp_status_t, clock_identity, 24);
KIV_LAYOUT(kiv_flash_config_t, 40, 8);
KIV_OFFSET(kiv_flash_config_t, next_boot_slot, 32);
KIV_LAYOUT(kiv_stream_status_t, 8, 1);
KIV_LAYOUT(kiv_card_status_t, 124, 4);
KIV_OFFSET(kiv_card_status_t, board_power, 112);
KIV_OFFSET(kiv_card_status_t, pci_link_b, 116);
KIV_OFFSET(kiv_card_status_t, pci_link_a, 120);
KIV_LAYOUT(kiv_scan_card_device_t, 24, 8);
KIV_OFFSET(kiv_scan_card_device_t, card_word, 8);
KIV_OFFSET(kiv_scan_card_device_t, ip_address_0, 16);
KIV_OFFSET(kiv_scan_card_device_t, ip_address_1, 20);
KIV_LAYOUT(kiv_scan_t, 16, 8);
KIV_OFFSET(kiv_scan_t, devices, 8);
KIV_LAYOUT(kiv_scan_card_device_internal_t, 8, 4);
KIV_LAYOUT(kiv_scan_internal_t, 24, 8);
KIV_OFFSET(kiv_scan_internal_t, devices, 8);
KIV_OFFSET(kiv_scan_internal_t, internal, 16);
KIV_LAYOUT(kiv_scan_each_card_t, 40, 8);
KIV_OFFSET(kiv_scan_each_card_t, device, 8);
KIV_OFFSET(kiv_scan_each_card_t, tunnel, 32);
KIV_LAYOUT(kiv_scan_each_t, 16, 8);
KIV_OFFSET(kiv_scan_each_t, cards, 8);
KIV_LAYOUT(kiv_event_link_t, 4, 1);
KIV_LAYOUT(kiv_event_hwmon_t, 140, 4);
/* clang-format on */

#undef KIV_ALIGNMENT
#undef KIV_LAYOUT
#undef KIV_OFFSET

#endif

#ifdef __cplusplus
}
#endif

#endif
