/// User-space client of the card's driver extension: one object for each PCI function that the driver
/// publishes.
#ifndef KIV_DRIVER_CLIENT_H
#define KIV_DRIVER_CLIENT_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ThreadManager.h"
#include "kiv_export.h"

class kivDriverClient;
using kivDriverClientList = std::vector<std::shared_ptr<kivDriverClient>>;

/// Operations return 0, the platform's status when a call fails, or -1, with a line in the platform log, when
/// the client is closed or an argument is bad. Results are 0 when a call fails, unless said otherwise.
///
/// Threads: driver calls may be made from any thread at once; close() waits for those under way.
class KIV_API kivDriverClient : public ThreadManager, public std::enable_shared_from_this<kivDriverClient> {
  public:
    static constexpr uint8_t pf0_st2110_id = 22;  ///< ST 2110 media function, PCI function 0.
    static constexpr uint8_t pf1_cpeng_id = 23;   ///< On-card processor, PCI function 1.

    /// What the driver knows of the function since it was started.
    struct boot_conf_t {
        uint32_t memory_ids[4];  ///< The four memories that the driver pre-allocates.
        uint8_t unknown_16[16];  ///< Only carried.
        uint8_t bus;
        uint8_t device;
        uint8_t function;       ///< PCI function number.
        uint8_t identity_kind;  ///< Non-zero: cards are told apart by `identity`; zero: by `identity_text`.
        uint64_t identity;
        char identity_text[64];  ///< Always terminated.
    };

    /// Settings of the card that the driver keeps.
    struct device_conf_t {
        uint8_t device_index;  ///< The card's id.
        uint32_t ip[2];  ///< Addresses of the media ports, IPv4, first octet in the most significant byte.
        uint32_t tun;    ///< Tunnel address, likewise.
        uint32_t port;   ///< TCP port of the management server at `tun`, 16 bits.
        uint8_t
            ptp_selected;  ///< Non-zero: the selected PTP card. Not read from the driver: its owner sets it.
    };

    struct use_resource {
        uint16_t tx[3];
        uint16_t rx[3];
    };
    struct pci_link_info {
        uint8_t value[2];
    };
    struct anc_control {
        uint8_t a;
        uint32_t b;
        uint16_t c;
    };

    /// Opens every service of that name, as function 22 or else 23; one that refuses both is left out. In the
    /// driver's order.
    static kivDriverClientList enumerateDevices(const char* name);

    /// Takes over an open connection and reads both configurations; what cannot be read is zero.
    kivDriverClient(uint8_t func_id, uint32_t connect);

    /// As close(), but the connection always ends.
    ~kivDriverClient() override;

    /// Announces this process to the driver. Interrupt messages are not served by this version: `interrupts`
    /// true is -1.
    int32_t open(bool interrupts);

    /// Takes leave of the driver and closes the connection. -1 when it is closed already, or when the driver
    /// refuses the leave: then the connection stays.
    int32_t close();

    bool isOpen() const { return connect_ != 0; }
    uint8_t get_func_id() const { return func_id_; }

    // ---- Driver calls -----------------------------------------------------------------------------------

    int32_t init();    ///< This process to the driver's list of users ...
    int32_t deinit();  ///< ... and off it.
    int32_t load_boot_conf(boot_conf_t& conf);
    int32_t set_device_conf(const device_conf_t& conf);
    int32_t get_device_conf(device_conf_t& conf);  ///< All but `ptp_selected`.

    /// Version of this client, 2.3.1, without a call.
    void get_version(uint16_t& major, uint16_t& minor, uint16_t& patch) const;
    int32_t get_version_dext(uint16_t& major, uint16_t& minor, uint16_t& patch);  ///< Untouched on failure.

    /// Registers; `offset` in bytes from the start of the BAR.
    int32_t read_pci32(uint32_t bar, uint64_t offset, uint32_t* value);
    int32_t read_pci64(uint32_t bar, uint64_t offset, uint64_t* value);
    int32_t write_pci32(uint32_t bar, uint64_t offset, uint32_t value);
    int32_t write_pci64(uint32_t bar, uint64_t offset, uint64_t value);
    /// Diagnostic: a read that carries `value`; prints the reply on standard output.
    int32_t write_pci32_test(uint32_t bar, uint64_t offset, uint32_t value);

    /// DMA memory of the driver: `depth` elements of `elm_size` bytes under `id`.
    int32_t iomalloc(uint32_t id, uint32_t elm_size, uint32_t depth);
    int32_t iofree(uint32_t id);
    int32_t get_iobus_address(uint32_t id, uint32_t index, uint64_t* address);

    int32_t get_ptp_epoch_time(uint64_t* time);
    int32_t get_ptp_epoch_time_and_system_time(uint64_t& a, uint64_t& b, uint64_t& c);

    int32_t reset(int32_t a, int32_t b);
    int32_t reset_buffer();
    int32_t enable_interrupt(uint32_t number);
    int32_t disable_interrupt(uint32_t number);

    /// Hands `count` (at most 254) ANC descriptors of two words each to the driver.
    int32_t set_descriptor_anc(bool direction, uint32_t& count, uint64_t* descriptors);
    int32_t control_anc(const anc_control& control);
    int32_t get_anc_info(uint64_t* a, uint64_t* b);  ///< Either may be null. Untouched on failure.
    bool is_hpq_anc_enable();                        ///< False also when the register cannot be read.

    int32_t register_process_data(bool flag, uint8_t number, uint16_t value, uint32_t data);
    int32_t unregister_process_data(bool flag, uint8_t number, uint16_t value);
    int32_t get_use_resource_data(use_resource& resource);  ///< Untouched on failure.
    int32_t get_pci_link_info(pci_link_info& info);         ///< Untouched on failure.

    // ---- Lookup in a list of clients: the first match in list order -------------------------------------

    /// The `index`-th client, from 0, of that function id.
    static kivDriverClient* get_class_ptr_iterator(kivDriverClientList& list, uint8_t index, uint8_t func_id);
    static std::shared_ptr<kivDriverClient> get_class_sptr_iterator(kivDriverClientList& list, uint8_t index,
                                                                    uint8_t func_id);
    /// By card and PCI function number.
    static kivDriverClient* get_class_ptr_ByPciId(kivDriverClientList& list, uint8_t device_id,
                                                  uint8_t funcNumber);
    /// By card and function id.
    static kivDriverClient* get_class_ptr_ByPciId_FuncId(kivDriverClientList& list, uint8_t device_id,
                                                         uint8_t func_id);
    static std::shared_ptr<kivDriverClient> get_class_sptr_ByPciId_FuncId(kivDriverClientList& list,
                                                                          uint8_t device_id, uint8_t func_id);
    /// By any one of the three addresses; a zero address matches a zero argument.
    static kivDriverClient* get_class_ptr_ByIp(kivDriverClientList& list, uint32_t ip0, uint32_t ip1,
                                               uint32_t tun);
    static std::shared_ptr<kivDriverClient> get_class_sptr_ByIp(kivDriverClientList& list, uint32_t ip0,
                                                                uint32_t ip1, uint32_t tun);
    /// The `index`-th client of that function id, then every client of the same card in list order, itself
    /// included.
    static kivDriverClientList get_SiblingDevice(kivDriverClientList& list, uint8_t index, uint8_t func_id);
    /// Number of clients of that function id, modulo 256.
    static uint8_t get_pci_function_count(kivDriverClientList& list, uint8_t func_id);

  private:
    template <typename In, typename Out>
    int32_t call(uint32_t selector, const In* input, Out* output);
    template <typename In>
    int32_t send(uint32_t selector, const In& input);
    template <typename Out>
    int32_t receive(uint32_t selector, Out& output);
    bool connected() const;
    bool same_card(const kivDriverClient& other) const;

    [[maybe_unused]] uint64_t unknown_ = 0x0002000000010000;
    uint32_t register_bar_ = 1;  ///< BAR of the ANC mode register.
    std::string text_;
    uint8_t func_id_;
    std::atomic<uint32_t> connect_;  ///< Connection handle; 0 when closed.

  public:
    boot_conf_t boot_conf{};      ///< Read at creation.
    device_conf_t device_conf{};  ///< Read at creation; `ptp_selected` is 0 until its owner sets it.
};

#endif
