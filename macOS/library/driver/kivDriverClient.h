/// User-space client of the card's driver extension: one object for each PCI function that the driver
/// publishes.
#ifndef KIV_DRIVER_CLIENT_H
#define KIV_DRIVER_CLIENT_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <kiv/ThreadManager.h>
#include <kiv/kivDriverService.h>
#include <kiv/kiv_export.h>
#include <kiv/threadSafety.h>

class kivDriverClient;

/// Clients in the driver's order.
using kivDriverClientList = std::vector<std::shared_ptr<kivDriverClient>>;

struct __CFRunLoop;

/// One interrupt message of the driver. A message has one argument, or 3 to 16. A single argument is a plain
/// 64-bit value, not an array of one: it stands in `word[0]`, with `count` 1 and all other words 0. Messages
/// without arguments are not delivered, nor are those whose number of arguments the platform does not pass on
/// (2 and more than 16).
struct InterruptEvent {
    uint32_t count;     ///< Arguments of the message.
    uint32_t reserved;  ///< 0.
    uint64_t word[16];  ///< The arguments; 0 where there are fewer.
};

/// One element of DMA memory. The mapping lasts until it is undone or the client is closed.
struct buffer_info {
    uint64_t bus_address;     ///< As the card sees it.
    uint64_t mapped_address;  ///< In this process.
    uint64_t mapped_size;     ///< Bytes, whole pages.
};

/// DMA memory that a client has allocated.
struct dextBuffer {
    uint32_t id;                     ///< The caller's.
    uint32_t depth;                  ///< Number of elements.
    std::vector<buffer_info> infos;  ///< In their order.
};

/// Driver calls return 0, the platform's status when the call fails, or -1, with a line in the platform log,
/// when the client is closed or an argument is bad. Results are 0 when a call fails, unless said otherwise.
///
/// Memory: enumerateDevices(), set_callback(), get_buffer() and get_SiblingDevice() throw std::bad_alloc when
/// there is none left. The others do not: a mapping then fails with kIOReturnNoMemory (0xE00002BD).
///
/// Threads: everything may be called from any thread at once, the settings of `boot_conf` and `device_conf`
/// apart. A call that meets close() fails, as on a closed client or with the platform's status. Calls wait
/// for as long as the driver takes: they do not return while its process hangs. The last reference to a
/// client must not be dropped in its own interrupt callback. What rules 6 and 7 of kiv_api.h say of cancelled
/// threads and of signals holds here too.
///
/// A client is no use to the child of a fork: the connection stays with the parent, and calls fail.
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
        /// Non-zero: the selected PTP card. Not read from the driver: its owner sets it.
        uint8_t ptp_selected;
    };

    /// How many resources of the card are in use: three counts for each direction.
    struct use_resource {
        uint16_t tx[3];
        uint16_t rx[3];
    };
    /// The driver's two values for the function's PCI link.
    struct pci_link_info {
        uint8_t value[2];
    };
    /// Command to the ANC engine, as the driver takes it.
    struct anc_control {
        uint8_t a;
        uint32_t b;
        uint16_t c;
    };

    /// Opens every service of that name (KIV_DRIVER_SERVICE_NAME), as function 22 or else 23; one that
    /// refuses both is left out. In the driver's order. Empty, with a line in the platform log, when the
    /// platform cannot look for services, and without asking it when `name` is null.
    static kivDriverClientList enumerateDevices(const char* name);

    /// Takes over an open connection and reads both configurations; what cannot be read is zero.
    kivDriverClient(uint8_t func_id, uint32_t connect);

    /// As close(), but the connection always ends. Throws nothing. In a forked child it leaves connection and
    /// thread, which are the parent's, alone.
    ~kivDriverClient() override;

    /// Announces this process to the driver. With `interrupts` it also maps the ANC memories and starts the
    /// notification thread, unless that runs already; what fails there is not reported (the thread logs why
    /// it ends). Takes 10 ms then, so that the thread is registered with the driver. A thread that ends
    /// before it is registered leaves behind, until the process ends, the notification port that it has made;
    /// the ANC memories stay mapped and the process stays announced. The next open(true) starts another
    /// thread, with another port.
    int32_t open(bool interrupts);

    /// Ends the notification thread, takes leave of the driver and closes the connection, and with it all
    /// mappings and buffers. Waits for a callback that runs: hold no lock that it takes. -1 when it is closed
    /// already, in the client's own interrupt callback, or when the driver refuses the leave: then the
    /// connection stays, with its mappings and buffers, and without notification thread until the next
    /// open(true). The driver keeps the registration of the former thread, whose messages nobody takes any
    /// more: they stay in the system until the connection ends. Disable the interrupts before.
    int32_t close();

    /// Replaces what is called, on the notification thread, for each interrupt message; may be empty. When
    /// this returns the former one does not run any more (unless called inside it). Waits for a callback that
    /// runs, as close(). Exceptions are dropped.
    void set_callback(std::function<void(const InterruptEvent&)> callback);

    /// Whether there is a connection.
    bool isOpen() const { return connect_ != 0; }
    /// 22 or 23, as which the service was opened.
    uint8_t get_func_id() const { return func_id_; }

    // ---- Driver calls -----------------------------------------------------------------------------------

    /// Announce this process to the driver, and take leave. The driver is told the process, not the client: a
    /// leave may also be that of the process's other clients, which call init() again if they stay.
    int32_t init();
    int32_t deinit();

    /// Reads what the driver knows of the function. Untouched on failure.
    int32_t load_boot_conf(boot_conf_t& conf);
    /// Sets and reads the settings of the card that the driver keeps.
    int32_t set_device_conf(const device_conf_t& conf);
    int32_t get_device_conf(device_conf_t& conf);  ///< All but `ptp_selected`. Untouched on failure.

    /// Version of this client, 2.3.1, without a call.
    void get_version(uint16_t& major, uint16_t& minor, uint16_t& patch) const;
    /// Version of the driver. Untouched on failure.
    int32_t get_version_dext(uint16_t& major, uint16_t& minor, uint16_t& patch);

    /// Registers; `offset` in bytes from the start of the BAR. A value is 0 when the call fails, and
    /// untouched on a closed client.
    int32_t read_pci32(uint32_t bar, uint64_t offset, uint32_t* value);
    int32_t read_pci64(uint32_t bar, uint64_t offset, uint64_t* value);
    int32_t write_pci32(uint32_t bar, uint64_t offset, uint32_t value);
    int32_t write_pci64(uint32_t bar, uint64_t offset, uint64_t value);
    /// Diagnostic: a read that carries `value`; prints the reply on standard output.
    int32_t write_pci32_test(uint32_t bar, uint64_t offset, uint32_t value);

    /// DMA memory of the driver: `depth` elements of `elm_size` bytes under `id`.
    int32_t iomalloc(uint32_t id, uint32_t elm_size, uint32_t depth);
    int32_t iofree(uint32_t id);
    int32_t get_iobus_address(uint32_t id, uint32_t index, uint64_t* address);  ///< Untouched if closed.

    /// Maps an element of DMA memory, or a BAR, for reading and writing. The same memory mapped again is at
    /// the same address, and unmap() ends it for all who use it. Pointers may be null; untouched on failure.
    int32_t map_iomemory(uint32_t id, uint32_t index, uint64_t* address, uint64_t* size);
    int32_t map_pci(uint32_t bar, uint64_t* address, uint64_t* size);

    /// Undoes the mapping at `address`, which one of the two above has given; one call, however often the
    /// memory was mapped. kIOReturnBadArgument (0xE00002C2), without a call, for any other address and for
    /// one that is undone. The driver finds a mapping by its memory: unmap before iofree(). Afterwards the
    /// memory cannot be selected any more: the driver's status comes back. Whatever is returned, the address
    /// counts as undone; a mapping that could not be undone lasts until the client is closed.
    int32_t unmap(uint64_t address);

    /// 0 on every failure, also on a closed client. A null `time` is noticed after the call, if that
    /// succeeds.
    int32_t get_ptp_epoch_time(uint64_t* time);
    /// PTP time, and the two readings of the system clock around it.
    int32_t get_ptp_epoch_time_and_system_time(uint64_t& a, uint64_t& b, uint64_t& c);

    /// The driver's reset; the two numbers are its own.
    int32_t reset(int32_t a, int32_t b);
    /// Resets the driver's buffer state; not the buffers below.
    int32_t reset_buffer();

    /// Switches the messages of one interrupt on or off. Numbers are the driver's: which there are, and what
    /// the arguments of their messages say, is up to the driver and to the function that it serves. Messages
    /// of all interrupts go to the one callback (set_callback()), and only after open(true).
    int32_t enable_interrupt(uint32_t number);
    int32_t disable_interrupt(uint32_t number);

    /// Hands `count` (at most 254) ANC descriptors of two words each to the driver.
    int32_t set_descriptor_anc(bool direction, uint32_t& count, uint64_t* descriptors);
    /// Gives the ANC engine a command.
    int32_t control_anc(const anc_control& control);
    /// Two values of the ANC engine. Either pointer may be null. Untouched on failure.
    int32_t get_anc_info(uint64_t* a, uint64_t* b);
    /// Whether the ANC engine is on. False also when the register cannot be read.
    bool is_hpq_anc_enable();

    /// Learns the bus addresses of the first two ANC memories and maps all four. Stops at the first failure.
    int32_t init_anc_buffer();

    /// Element 0 of the ANC memory `number`, 0 to 3, in the order of `boot_conf.memory_ids`: zeros for what
    /// init_anc_buffer() has not reached since the client was opened, and for any other number. The last two
    /// have no bus address. An address that unmap() has undone is still given, until init_anc_buffer() maps
    /// the memory again or the client is closed.
    buffer_info get_anc_buffer(unsigned number) const;

    /// Has the driver keep a value for this connection, and forget it.
    int32_t register_process_data(bool flag, uint8_t number, uint16_t value, uint32_t data);
    int32_t unregister_process_data(bool flag, uint8_t number, uint16_t value);
    /// What the card has in use, and its PCI link. Untouched on failure.
    int32_t get_use_resource_data(use_resource& resource);
    int32_t get_pci_link_info(pci_link_info& info);

    // ---- Buffers: DMA memory with all its elements mapped. A client that is closed has forgotten them. ---

    /// Allocates and maps; all or nothing. -1 when the driver refuses the memory or there is none left for
    /// the record of the buffer, else the status of the element that failed. Ids are the caller's, and should
    /// be its own: buffers of one id may be the same memory at the same addresses, and the first counts.
    int32_t allocate_buffer(uint32_t id, uint32_t elm_size, uint32_t depth);

    /// A copy of the buffer; -1, with `out` untouched, when there is none, as after close().
    int32_t get_buffer(uint32_t id, dextBuffer& out) const;

    /// Releases one buffer; -1 when there is none. Its elements stay mapped until the client is closed,
    /// unless they are undone with unmap() before.
    int32_t free_buffer(uint32_t id);

    /// Unmaps and releases all buffers. 0.
    int32_t free_buffer();

    /// Whether `address` lies in or below a mapped region of this process.
    static bool isAddressValid(uint64_t address);

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
    // The notification thread belongs to open() and close().
    using ThreadManager::join_thread;
    using ThreadManager::notify_all;
    using ThreadManager::start_thread;

    template <typename In, typename Out>
    KIV_LOCAL int32_t call(uint32_t selector, const In* input, Out* output);
    template <typename In>
    KIV_LOCAL int32_t send(uint32_t selector, const In& input);
    template <typename Out>
    KIV_LOCAL int32_t receive(uint32_t selector, Out& output);
    KIV_LOCAL uint32_t connected() const;

    /// What the driver can be told to select for mapping: an element of a memory block, or a BAR.
    struct Memory {
        uint32_t kind;
        uint32_t id;
        uint32_t index;
        uint32_t bar;
        bool operator==(const Memory&) const = default;
    };
    struct Mapping {
        Memory memory;
        uint64_t address;
        bool operator==(const Mapping&) const = default;
    };
    KIV_LOCAL int32_t select(uint32_t connect, const Memory& memory) KIV_REQUIRES(selection_mutex_);
    KIV_LOCAL int32_t map_memory(const Memory& memory, uint64_t* address, uint64_t* size,
                                 bool* is_new = nullptr);
    KIV_LOCAL void forget_selection();
    KIV_LOCAL void release(const dextBuffer& buffer);

    void run_thread() override;
    KIV_LOCAL bool register_callback(__CFRunLoop* run_loop);
    KIV_LOCAL static void callbak_dext(void* refcon, int32_t result, void** args, uint32_t numArgs);
    KIV_LOCAL void notify(void** args, uint32_t numArgs) noexcept;
    KIV_LOCAL void start_notifications() KIV_REQUIRES(lifecycle_mutex_);
    KIV_LOCAL void stop_notifications() KIV_REQUIRES(lifecycle_mutex_);
    KIV_LOCAL void end_of_thread();

    KIV_LOCAL bool same_card(const kivDriverClient& other) const;
    KIV_LOCAL bool inherited() const;

    [[maybe_unused]] uint64_t unknown_ = 0x0002000000010000;
    uint32_t register_bar_ = 1;  ///< BAR of the ANC mode register.
    std::string text_;
    uint8_t func_id_;
    std::atomic<uint32_t> connect_;  ///< Connection handle; 0 when closed.

    std::mutex lifecycle_mutex_;  ///< Serialises open and close; not taken on the notification thread.
    uint32_t notify_port_ KIV_GUARDED_BY(mutex) = 0;
    /// The notification thread's, retained; released after its join.
    __CFRunLoop* run_loop_ KIV_GUARDED_BY(mutex) = nullptr;
    /// The notification thread is started and has not returned.
    bool notifying_ KIV_GUARDED_BY(mutex) = false;

    kiv::RecursiveMutex callback_mutex_;  ///< Held while the callback runs.
    std::shared_ptr<const std::function<void(const InterruptEvent&)>> callback_
        KIV_GUARDED_BY(callback_mutex_);

    std::mutex selection_mutex_;  ///< Selecting a memory and what is done with it are one step.
    /// What the driver has selected, if known.
    std::optional<Memory> selected_ KIV_GUARDED_BY(selection_mutex_);
    /// At most one of each memory, and of each address.
    std::vector<Mapping> mappings_ KIV_GUARDED_BY(selection_mutex_);
    mutable std::mutex buffer_mutex_;                                ///< Taken before `selection_mutex_`.
    std::vector<dextBuffer> buffers_ KIV_GUARDED_BY(buffer_mutex_);  ///< In allocation order.
    buffer_info anc_buffers_[4] KIV_GUARDED_BY(buffer_mutex_) = {};
    /// The process that made the client: a forked child must not touch its locks.
    const int32_t process_id_;

  public:
    boot_conf_t boot_conf{};      ///< Read at creation.
    device_conf_t device_conf{};  ///< Read at creation; `ptp_selected` is 0 until its owner sets it.
};

#endif
