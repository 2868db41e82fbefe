// What the library's layers add to a register read: IDeviceAccess against the bare platform call. First with
// a platform call that does nothing, so that only our code is timed, then with the simulator's driver
// process, beside a bare round trip of the same bytes over a socket.
#include <IOKit/IOKitLib.h>
#include <dlfcn.h>
#include <kiv/kivDriverService.h>
#include <kivos/sockets.h>
#include <sys/socket.h>
#include "driver/DeviceFactoryMacOS.h"
#include "driver/wire.h"
#include "support/SimulatorProcess.h"
#include "support/machine.h"
#include "support/measure.h"
#include "support/report.h"

#include <memory>
#include <thread>

#include <kiv/kivDriverClient.h>

namespace {

using kivbench::each;
using kivbench::measure;
using kivbench::Plan;
using kivbench::Report;
using kivbench::require;
using kivbench::Work;

bool g_no_driver = true;

using StructMethod = kern_return_t (*)(mach_port_t, uint32_t, const void*, size_t, void*, size_t*);

}  // namespace

/// Stands before the platform's own: succeeds at once while there is no driver, else passes on.
extern "C" kern_return_t IOConnectCallStructMethod(mach_port_t connection, uint32_t selector,
                                                   const void* input, size_t input_size, void* output,
                                                   size_t* output_size) {
    static const auto platform =
        reinterpret_cast<StructMethod>(dlsym(RTLD_NEXT, "IOConnectCallStructMethod"));
    return g_no_driver ? kIOReturnSuccess
                       : platform(connection, selector, input, input_size, output, output_size);
}

namespace {

/// What the driver client does for one read, and nothing else.
Work bare(mach_port_t connection) {
    return each([=] {
        kiv::wire::PciAccess request{};
        request.offset = 0x140;
        kiv::wire::PciAccess reply{};
        size_t size = sizeof reply;
        require(IOConnectCallStructMethod(connection, kiv::wire::kReadPci32, &request, sizeof request, &reply,
                                          &size) == kIOReturnSuccess,
                "a read fails");
    });
}

Work layers(kiv::access::IDeviceAccess& access) {
    return each([&access] {
        uint32_t value = 0;
        require(access.readRegister32(0, 0x140, value) == 0, "a read fails");
    });
}

/// A thread that answers every message of the size of a read's with one of the size of its reply.
class Echo {
  public:
    Echo() {
        require(kivos::socket_pair(near_, far_), "there are no sockets");
        thread_ = std::thread([this] {
            char bytes[56] = {};
            while (recv(far_.get(), bytes, sizeof bytes, 0) > 0)
                send(far_.get(), bytes, 40, kivos::kNoSignal);
        });
    }
    ~Echo() {
        shutdown(near_.get(), SHUT_RDWR);
        thread_.join();
    }
    Echo(const Echo&) = delete;
    Echo& operator=(const Echo&) = delete;

    Work round_trip() const {
        return each([this] {
            char bytes[56] = {};
            require(send(near_.get(), bytes, sizeof bytes, kivos::kNoSignal) == sizeof bytes &&
                        recv(near_.get(), bytes, sizeof bytes, 0) == 40,
                    "the echo is gone");
        });
    }

  private:
    kivos::Descriptor near_;
    kivos::Descriptor far_;
    std::thread thread_;
};

void measure_layers(Report& report) {
    constexpr mach_port_t kAnyConnection = 1;
    const auto client = std::make_shared<kivDriverClient>(kivDriverClient::pf0_st2110_id, kAnyConnection);
    kiv::device::DeviceFactoryMacOS factory;
    const auto access = factory.createDeviceAccess(client.get(), 0);
    const auto times =
        measure(Plan{.rounds = 25, .repetitions = 100'000}, {bare(kAnyConnection), layers(*access)});
    report.add({"register read, a platform that does nothing",
                "ns",
                times[1].median(),
                times[0].median(),
                "bare platform call",
                {{1.10, 20}}});
}

/// On one core: on two, a round trip takes up to ten times as long when its threads happen to wake on the
/// other.
void measure_simulator(Report& report) {
    const auto one_core = kivbench::stay_on_one_core();
    const kivbench::SimulatorProcess simulator(1);
    simulator.choose();
    g_no_driver = false;
    kivDriverClientList clients = kivDriverClient::enumerateDevices(KIV_DRIVER_SERVICE_NAME);
    require(!clients.empty(), "there is no card");
    kiv::device::DeviceFactoryMacOS factory;
    const auto access = factory.createDeviceAccess(clients[0].get(), 0);
    const Echo echo;

    io_iterator_t services = IO_OBJECT_NULL;
    io_connect_t connection = IO_OBJECT_NULL;
    require(IOServiceGetMatchingServices(kIOMainPortDefault, IOServiceNameMatching(KIV_DRIVER_SERVICE_NAME),
                                         &services) == kIOReturnSuccess,
            "there are no services");
    const io_service_t service = IOIteratorNext(services);
    require(
        IOServiceOpen(service, mach_task_self(), kiv::wire::kFunctionSt2110, &connection) == kIOReturnSuccess,
        "there is no connection");
    const auto times = measure(Plan{.rounds = 15, .repetitions = 1000},
                               {bare(connection), layers(*access), echo.round_trip()});
    report.add({"register read, the simulator's driver",
                "ns",
                times[1].median(),
                times[0].median(),
                "bare platform call",
                {{1.10, 20}}});
    report.add({"register read, the simulator's driver", "ns", times[1].median(), times[2].median(),
                "socket round trip of as many bytes"});
    IOServiceClose(connection);
    IOObjectRelease(service);
    IOObjectRelease(services);
}

}  // namespace

int main(int argc, char** argv) {
    return kivbench::run(argc, argv, [](Report& report) {
        report.about("driver call");
        measure_layers(report);
        measure_simulator(report);
    });
}
