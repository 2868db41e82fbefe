#include <IOKit/IOKitLib.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "cf_object.h"
#include "connection.h"
#include "notification_port.h"

namespace {

using kivplatform::Channel;
using kivplatform::Connection;
using kivplatform::Conversation;
using kivplatform::Descriptor;

/// What a port name stands for: exactly one of these.
struct Object {
    enum class Kind { Iterator, Service, Connection };
    Kind kind = Kind::Service;
    unsigned references = 1;
    std::deque<uint64_t> entries{};            ///< Iterator: what is still to come.
    uint64_t entry = 0;                        ///< Service.
    std::shared_ptr<Connection> connection{};  ///< Connection.
};

/// The port names of this process. Names are handed out once and never again.
class Names {
  public:
    mach_port_t add(Object object) {
        const std::unique_lock lock(mutex_);
        objects_.emplace(next_, std::move(object));
        return next_++;
    }

    /// Calls `use` with the object under the lock; false when the name is unknown or of another kind.
    template <typename Use>
    bool with(mach_port_t name, Object::Kind kind, Use use) {
        const std::unique_lock lock(mutex_);
        const auto found = objects_.find(name);
        if (found == objects_.end() || found->second.kind != kind) return false;
        use(found->second);
        return true;
    }

    std::shared_ptr<Connection> connection(mach_port_t name) {
        const std::shared_lock lock(mutex_);
        const auto found = objects_.find(name);
        return found == objects_.end() ? nullptr : found->second.connection;
    }

    /// Drops one reference; `removed` holds the object when it was the last.
    bool release(mach_port_t name, Object& removed) {
        const std::unique_lock lock(mutex_);
        const auto found = objects_.find(name);
        if (found == objects_.end()) return false;
        if (--found->second.references == 0) {
            removed = std::move(found->second);
            objects_.erase(found);
        }
        return true;
    }

  private:
    std::shared_mutex mutex_;  ///< Guards all below.
    std::unordered_map<mach_port_t, Object> objects_;
    mach_port_t next_ = 0x1003;
};

/// Never destroyed: a connection may be closed late in the process's exit.
Names& names() {
    static Names& instance = *new Names;
    return instance;
}

struct ReleaseDictionary {
    void operator()(const __CFDictionary* dictionary) const { CFRelease(dictionary); }
};

/// Entry ids of the services with that name; an error only for a driver process that does not answer as it
/// should.
kern_return_t list_services(const std::string& name, std::deque<uint64_t>& entries) {
    kern_return_t status = kIOReturnSuccess;
    const auto conversation = Conversation::start(status);
    if (!conversation) return status;
    kivplatform_request request{};
    request.kind = KIVPLATFORM_LIST;
    std::vector<uint64_t> found(KIVPLATFORM_MESSAGE_SIZE / sizeof(uint64_t));
    std::size_t produced = 0;
    status = conversation->ask(request, name.data(), name.size(), std::as_writable_bytes(std::span(found)),
                               produced);
    if (status != kIOReturnSuccess) return status;
    const auto count = static_cast<std::ptrdiff_t>(produced / sizeof(uint64_t));
    entries.assign(found.begin(), found.begin() + count);
    return kIOReturnSuccess;
}

/// Input and output of a struct call, as the caller gave them.
struct Structs {
    const void* input;
    size_t input_size;
    void* output;
    size_t* output_size;
};

kern_return_t call(Connection& connection, kivplatform_request request, const Structs& structs,
                   int descriptor = -1) {
    if (structs.input_size > KIVPLATFORM_INBAND_SIZE) return kIOReturnMessageTooLarge;
    if (structs.input == nullptr && structs.input_size != 0) return kIOReturnBadArgument;

    // The reply goes through a buffer of our own: a failing call must leave the caller's as it was.
    std::array<std::byte, KIVPLATFORM_INBAND_SIZE> reply;
    const bool wants_output = structs.output != nullptr && structs.output_size != nullptr;
    const size_t capacity = std::min(wants_output ? *structs.output_size : 0, reply.size());
    request.capacity = static_cast<uint32_t>(capacity);
    size_t produced = 0;
    const kern_return_t status = connection.conversation().ask(
        request, structs.input, structs.input_size, std::span(reply).first(capacity), produced, descriptor);
    if (status != kIOReturnSuccess || produced == 0) return status;
    std::memcpy(structs.output, reply.data(), produced);
    *structs.output_size = produced;
    return kIOReturnSuccess;
}

}  // namespace

const mach_port_t kIOMainPortDefault = 0;

CFMutableDictionaryRef IOServiceNameMatching(const char* name) {
    return name == nullptr ? nullptr : new __CFDictionary(name);
}

kern_return_t IOServiceGetMatchingServices(mach_port_t, CFDictionaryRef matching, io_iterator_t* existing) {
    if (matching == nullptr) return kIOReturnBadArgument;
    const std::unique_ptr<const __CFDictionary, ReleaseDictionary> consumed(matching);
    if (existing == nullptr) return kIOReturnBadArgument;
    Object iterator{Object::Kind::Iterator};
    const kern_return_t status = list_services(matching->name, iterator.entries);
    if (status != kIOReturnSuccess) return status;
    *existing = iterator.entries.empty() ? IO_OBJECT_NULL : names().add(std::move(iterator));
    return kIOReturnSuccess;
}

io_object_t IOIteratorNext(io_iterator_t iterator) {
    Object service{Object::Kind::Service};
    bool found = false;
    names().with(iterator, Object::Kind::Iterator, [&](Object& object) {
        if (object.entries.empty()) return;
        service.entry = object.entries.front();
        object.entries.pop_front();
        found = true;
    });
    return found ? names().add(std::move(service)) : IO_OBJECT_NULL;
}

kern_return_t IOObjectRelease(io_object_t object) {
    Object removed{Object::Kind::Service};
    if (!names().release(object, removed)) return KERN_INVALID_NAME;
    if (removed.connection) removed.connection->close();
    return KERN_SUCCESS;
}

kern_return_t IOServiceOpen(io_service_t service, task_port_t, uint32_t type, io_connect_t* connect) {
    if (connect == nullptr) return kIOReturnBadArgument;
    kivplatform_request request{};
    request.kind = KIVPLATFORM_OPEN;
    request.number = type;
    if (!names().with(service, Object::Kind::Service,
                      [&](Object& object) { request.entry = object.entry; })) {
        return kIOReturnBadArgument;
    }
    kern_return_t status = kIOReturnSuccess;
    const auto conversation = Conversation::start(status);
    if (!conversation) return status != kIOReturnSuccess ? status : MACH_SEND_INVALID_DEST;
    std::size_t produced = 0;
    status = conversation->ask(request, nullptr, 0, {}, produced);
    if (status != kIOReturnSuccess) return status;
    Object connection{Object::Kind::Connection};
    connection.connection = std::make_shared<Connection>(conversation);
    *connect = names().add(std::move(connection));
    return kIOReturnSuccess;
}

kern_return_t IOServiceClose(io_connect_t connect) {
    if (!names().connection(connect)) return kIOReturnBadArgument;
    return IOObjectRelease(connect);
}

kern_return_t IOConnectCallStructMethod(mach_port_t connection, uint32_t selector, const void* input,
                                        size_t input_size, void* output, size_t* output_size) {
    const auto found = names().connection(connection);
    if (!found) return MACH_SEND_INVALID_DEST;
    kivplatform_request request{};
    request.kind = KIVPLATFORM_CALL;
    request.number = selector;
    return call(*found, request, {input, input_size, output, output_size});
}

kern_return_t IOConnectCallAsyncStructMethod(mach_port_t connection, uint32_t selector, mach_port_t wake_port,
                                             uint64_t* reference, uint32_t reference_count, const void* input,
                                             size_t input_size, void* output, size_t* output_size) {
    const auto found = names().connection(connection);
    if (!found) return MACH_SEND_INVALID_DEST;
    if ((reference == nullptr) != (reference_count == 0) || reference_count > kOSAsyncRef64Count)
        return kIOReturnBadArgument;
    const auto port = kivplatform::channels_of(wake_port);
    if (!port) return kIOReturnBadArgument;

    // Word 0 of the copy is the system's: the wake port, which `port` stands for. A missing word is 0.
    std::array<uint64_t, kOSAsyncRef64Count> words{};
    std::copy_n(reference, reference_count, words.begin());
    Descriptor far_end;
    const auto channel = Channel::create(reinterpret_cast<IOAsyncCallback>(words[kIOAsyncCalloutFuncIndex]),
                                         reinterpret_cast<void*>(words[kIOAsyncCalloutRefconIndex]), far_end);
    if (!channel) return kIOReturnNoResources;
    kivplatform_request request{};
    request.kind = KIVPLATFORM_CALL_ASYNC;
    request.number = selector;
    const kern_return_t status =
        call(*found, request, {input, input_size, output, output_size}, far_end.number());
    if (status != kIOReturnSuccess) return status;
    return found->add(channel, port) ? kIOReturnSuccess : MACH_SEND_INVALID_DEST;
}

kern_return_t IOConnectMapMemory64(io_connect_t connect, uint32_t memory_type, task_port_t,
                                   mach_vm_address_t* address, mach_vm_size_t* size, IOOptionBits options) {
    const auto found = names().connection(connect);
    if (!found) return MACH_SEND_INVALID_DEST;
    if (address == nullptr || size == nullptr || (options & kIOMapAnywhere) == 0) return kIOReturnBadArgument;
    kivplatform_request request{};
    request.kind = KIVPLATFORM_MAP;
    request.number = memory_type;
    kivplatform_mapping mapping{};
    size_t produced = 0;
    Descriptor file;
    kern_return_t status = found->conversation().ask(
        request, nullptr, 0, std::as_writable_bytes(std::span(&mapping, 1)), produced, -1, &file);
    if (status == MACH_SEND_INVALID_DEST) return status;
    if (status != kIOReturnSuccess || produced != sizeof mapping) return kIOReturnBadArgument;
    status = found->mappings().map(file, mapping, *address);
    if (status == kIOReturnSuccess) *size = mapping.size;
    return status;
}

kern_return_t IOConnectUnmapMemory64(io_connect_t connect, uint32_t, task_port_t, mach_vm_address_t address) {
    const auto found = names().connection(connect);
    if (!found) return MACH_SEND_INVALID_DEST;
    return found->mappings().unmap(address) ? kIOReturnSuccess : kIOReturnBadArgument;
}
