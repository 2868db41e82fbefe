// The connection: finding the driver's services, opening and closing.
#include <kiv/kivDriverClient.h>

#include <IOKit/IOKitLib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <mutex>
#include <thread>

#include "driver/driverLog.h"
#include "driver/wire.h"

static_assert(kivDriverClient::pf0_st2110_id == kiv::wire::kFunctionSt2110);
static_assert(kivDriverClient::pf1_cpeng_id == kiv::wire::kFunctionHps);

namespace {

constexpr std::chrono::milliseconds kRegistrationTime{10};

/// Owns one reference of an IOKit object; may be empty.
class IoObject {
  public:
    explicit IoObject(io_object_t object) : object_(object) {}
    ~IoObject() {
        if (object_ != IO_OBJECT_NULL) IOObjectRelease(object_);
    }
    IoObject(const IoObject&) = delete;
    IoObject& operator=(const IoObject&) = delete;
    io_object_t get() const { return object_; }
    explicit operator bool() const { return object_ != IO_OBJECT_NULL; }

  private:
    const io_object_t object_;
};

/// A client of the service, by the first function id that the driver takes; empty when it takes none.
std::shared_ptr<kivDriverClient> open_service(io_service_t service) {
    for (const uint8_t type : {kivDriverClient::pf0_st2110_id, kivDriverClient::pf1_cpeng_id}) {
        io_connect_t connect = IO_OBJECT_NULL;
        if (IOServiceOpen(service, mach_task_self(), type, &connect) != kIOReturnSuccess) continue;
        try {
            return std::make_shared<kivDriverClient>(type, connect);
        } catch (...) {
            IOServiceClose(connect);
            throw;
        }
    }
    return nullptr;
}

}  // namespace

kivDriverClientList kivDriverClient::enumerateDevices(const char* name) {
    io_iterator_t found = IO_OBJECT_NULL;
    kern_return_t status = kIOReturnBadArgument;
    if (name != nullptr)  // The platform would read it.
        status = IOServiceGetMatchingServices(kIOMainPortDefault, IOServiceNameMatching(name), &found);
    if (status != kIOReturnSuccess) {
        driver_log(__LINE__, "Unable to find service for identifier with error: 0x%08x. name=%s\n",
                   static_cast<unsigned>(status), name != nullptr ? name : "");
        return {};
    }
    kivDriverClientList clients;
    const IoObject iterator(found);
    if (!iterator) return clients;
    while (const IoObject service{IOIteratorNext(iterator.get())}) {
        if (auto client = open_service(service.get())) clients.push_back(std::move(client));
    }
    return clients;
}

kivDriverClient::kivDriverClient(uint8_t func_id, uint32_t connect)
    : func_id_(func_id), connect_(connect), process_id_(getpid()) {
    load_boot_conf(boot_conf);
    get_device_conf(device_conf);
}

kivDriverClient::~kivDriverClient() {
    if (inherited()) {
        abandon_thread();
        return;
    }
    try {
        close();
    } catch (...) {
        // As when the driver refuses the leave.
    }
    if (const uint32_t connect = connect_.exchange(0)) IOServiceClose(connect);
}

bool kivDriverClient::inherited() const {
    return process_id_ != getpid();
}

int32_t kivDriverClient::open(bool interrupts) {
    if (inherited()) return -1;
    if (!interrupts || on_own_thread()) return init();
    const std::lock_guard lock(lifecycle_mutex_);
    const int32_t status = init();
    if (status != 0) return status;
    init_anc_buffer();
    start_notifications();
    std::this_thread::sleep_for(kRegistrationTime);
    return status;
}

int32_t kivDriverClient::close() {
    if (connect_ == 0 || inherited() || on_own_thread()) return -1;
    const std::lock_guard lock(lifecycle_mutex_);
    if (connect_ == 0) return -1;
    stop_notifications();
    if (deinit() != 0) return -1;
    IOServiceClose(connect_.exchange(0));  // Ends a call that waits with one of the next two locks held.
    const std::lock_guard buffer_lock(buffer_mutex_);
    const std::lock_guard selection_lock(selection_mutex_);
    selected_.reset();
    mappings_.clear();
    buffers_.clear();
    std::fill(std::begin(anc_buffers_), std::end(anc_buffers_), buffer_info{});
    return 0;
}
