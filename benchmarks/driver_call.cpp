// What the library's layers add to a register read: IDeviceAccess against the bare platform call. First with
// a platform call that does nothing, so that only our code is timed, then with the simulator's driver
// process, beside a bare round trip of the same bytes over a socket. Rounds run their variants forwards and
// backwards.
#include <IOKit/IOKitLib.h>
#include <dlfcn.h>
#include <kiv/kivDriverService.h>
#include <kivos/sockets.h>
#include <sys/socket.h>
#include <unistd.h>
#include "Simulator.h"
#include "driver/DeviceFactoryMacOS.h"
#include "driver/wire.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <kiv/kivDriverClient.h>

namespace {

constexpr double kTargetRatio = 1.10;
constexpr double kTargetExtra = 20;  ///< Nanoseconds.

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

void require(bool holds, const char* what) {
    if (!holds) throw std::runtime_error(std::string("cannot measure: ") + what);
}

struct Variant {
    const char* name;
    std::function<void(int)> repeat;   ///< So many reads.
    std::vector<double> elapsed = {};  ///< Nanoseconds per read.
};

void time_once(Variant& variant, int reads) {
    const auto start = std::chrono::steady_clock::now();
    variant.repeat(reads);
    const std::chrono::duration<double, std::nano> elapsed = std::chrono::steady_clock::now() - start;
    variant.elapsed.push_back(elapsed.count() / reads);
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

void measure(std::vector<Variant>& variants, int rounds, int reads) {
    for (Variant& variant : variants)
        variant.repeat(reads);  // Warms up.
    for (int round = 0; round < rounds; ++round) {
        for (Variant& variant : variants)
            time_once(variant, reads);
        std::for_each(variants.rbegin(), variants.rend(),
                      [&](Variant& variant) { time_once(variant, reads); });
    }
    for (const Variant& variant : variants)
        std::printf("  %-34s %10.1f ns  %6.3f\n", variant.name, median(variant.elapsed),
                    median(variant.elapsed) / median(variants[0].elapsed));
}

/// What the driver client does for one read, and nothing else.
void bare_read(mach_port_t connection) {
    kiv::wire::PciAccess request{};
    request.offset = 0x140;
    kiv::wire::PciAccess reply{};
    size_t size = sizeof reply;
    require(IOConnectCallStructMethod(connection, kiv::wire::kReadPci32, &request, sizeof request, &reply,
                                      &size) == kIOReturnSuccess,
            "a read failed");
}

Variant bare(mach_port_t connection) {
    return {"IOConnectCallStructMethod", [=](int reads) {
                for (int i = 0; i < reads; ++i)
                    bare_read(connection);
            }};
}

Variant layers(kiv::access::IDeviceAccess& access) {
    return {"IDeviceAccess::readRegister32", [&access](int reads) {
                uint32_t value = 0;
                for (int i = 0; i < reads; ++i)
                    require(access.readRegister32(0, 0x140, value) == 0, "a read failed");
            }};
}

/// A thread that answers every message of the size of a read's with one of the size of its reply.
class Echo {
  public:
    Echo() {
        require(kivos::socket_pair(near_, far_), "no sockets");
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

    Variant variant() const {
        return {"socket round trip", [this](int reads) {
                    char bytes[56] = {};
                    for (int i = 0; i < reads; ++i)
                        require(send(near_.get(), bytes, sizeof bytes, kivos::kNoSignal) == sizeof bytes &&
                                    recv(near_.get(), bytes, sizeof bytes, 0) == 40,
                                "no echo");
                }};
    }

  private:
    kivos::Descriptor near_;
    kivos::Descriptor far_;
    std::thread thread_;
};

bool measure_layers() {
    constexpr mach_port_t kAnyConnection = 1;
    const auto client = std::make_shared<kivDriverClient>(kivDriverClient::pf0_st2110_id, kAnyConnection);
    kiv::device::DeviceFactoryMacOS factory;
    const auto access = factory.createDeviceAccess(client.get(), 0);
    std::vector<Variant> variants = {bare(kAnyConnection), layers(*access), bare(kAnyConnection)};
    variants[2].name = "IOConnectCallStructMethod again";
    std::printf("a platform that does nothing\n");
    measure(variants, 50, 100'000);
    const double target = median(variants[0].elapsed) * kTargetRatio + kTargetExtra;
    const bool met = median(variants[1].elapsed) <= target;
    std::printf("  at most %.2f times the bare call plus %.0f ns: %s\n", kTargetRatio, kTargetExtra,
                met ? "met" : "not met");
    return met;
}

void measure_simulator() {
    const std::string socket =
        std::filesystem::temp_directory_path() / ("kiv_benchmark_" + std::to_string(getpid()));
    const kivsim::Simulator simulator({kivsim::believable_card(1)}, socket, "");
    setenv("KIVSIM_SOCKET", socket.c_str(), 1);
    g_no_driver = false;
    {
        kivDriverClientList clients = kivDriverClient::enumerateDevices(KIV_DRIVER_SERVICE_NAME);
        require(!clients.empty(), "no card");
        kiv::device::DeviceFactoryMacOS factory;
        const auto access = factory.createDeviceAccess(clients[0].get(), 0);
        const Echo echo;

        io_iterator_t services = IO_OBJECT_NULL;
        io_connect_t connection = IO_OBJECT_NULL;
        require(
            IOServiceGetMatchingServices(kIOMainPortDefault, IOServiceNameMatching(KIV_DRIVER_SERVICE_NAME),
                                         &services) == kIOReturnSuccess,
            "no services");
        const io_service_t service = IOIteratorNext(services);
        require(IOServiceOpen(service, mach_task_self(), kiv::wire::kFunctionSt2110, &connection) ==
                    kIOReturnSuccess,
                "no connection");
        std::vector<Variant> variants = {echo.variant(), bare(connection), layers(*access)};
        std::printf("the simulator's driver process, in this process\n");
        measure(variants, 10, 1000);
        IOServiceClose(connection);
        IOObjectRelease(service);
        IOObjectRelease(services);
    }
    g_no_driver = true;
}

}  // namespace

int main() {
    try {
        std::printf("%u cores, compiler %s; medians per read, ratio to the first\n",
                    std::thread::hardware_concurrency(), __VERSION__);
        const bool met = measure_layers();
        measure_simulator();
        return met ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
