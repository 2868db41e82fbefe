#include <IOKit/IOKitLib.h>
#include <kivos/per_process.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "cf_object.h"
#include "connection.h"
#include "notification_port.h"

namespace {

using kivos::Descriptor;
using kivplatform::Channel;
using kivplatform::Connection;
using kivplatform::Conversation;

/// What a port name stands for: exactly one of these. Building one allocates nothing, since closing needs
/// one.
struct Object {
    enum class Kind { Iterator, Service, Connection };
    Kind kind = Kind::Service;
    unsigned references = 1;
    std::vector<uint64_t> entries{};           ///< Iterator: what is still to come, the next one last.
    uint64_t entry = 0;                        ///< Service.
    std::shared_ptr<Connection> connection{};  ///< Connection.
};

/// The port names of this process. Names are handed out once and never again, in a forked child neither:
/// there the parent's are known for what they are and stand for nothing.
class Names {
  public:
    explicit Names(const Names* inherited)
        : first_(inherited == nullptr ? kFirst : inherited->next_.load()), next_(first_) {}

    /// What a call on a name without an object gives.
    kern_return_t status_without(mach_port_t name) const {
        return name >= kFirst && name < first_ ? MACH_SEND_INVALID_DEST : kIOReturnBadArgument;
    }

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
    static constexpr mach_port_t kFirst = 0x1003;

    const mach_port_t first_;  ///< Of this process.
    std::shared_mutex mutex_;  ///< Guards all below.
    std::unordered_map<mach_port_t, Object> objects_;
    std::atomic<mach_port_t> next_;  ///< A forked child reads it without the lock.
};

Names& names() {
    return kivos::of_this_process<Names>();
}

struct ReleaseDictionary {
    void operator()(const __CFDictionary* dictionary) const { CFRelease(dictionary); }
};

/// Entry ids of the services with that name; an error only for a driver process that does not answer as it
/// should.
kern_return_t list_services(const std::string& name, std::vector<uint64_t>& entries) {
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
    entries.assign(found.rend() - count, found.rend());
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

/// The driver's memory of that type: what the driver has selected on the connection now.
kern_return_t ask_for_memory(Connection& connection, uint32_t memory_type, Descriptor& file,
                             kivplatform_mapping& bytes) {
    kivplatform_request request{};
    request.kind = KIVPLATFORM_MAP;
    request.number = memory_type;
    size_t produced = 0;
    const kern_return_t status = connection.conversation().ask(
        request, nullptr, 0, std::as_writable_bytes(std::span(&bytes, 1)), produced, -1, &file);
    if (status == MACH_SEND_INVALID_DEST) return status;
    return status == kIOReturnSuccess && produced == sizeof bytes ? kIOReturnSuccess : kIOReturnBadArgument;
}

}  // namespace

// C functions: out of memory they give a status, and what they had begun is undone.

const mach_port_t kIOMainPortDefault = 0;

CFMutableDictionaryRef IOServiceNameMatching(const char* name) try {
    if (name == nullptr) std::abort();
    return new __CFDictionary(name);
} catch (const std::bad_alloc&) {
    return nullptr;
}

kern_return_t IOServiceGetMatchingServices(mach_port_t, CFDictionaryRef matching,
                                           io_iterator_t* existing) try {
    if (matching == nullptr) return kIOReturnBadArgument;
    const std::unique_ptr<const __CFDictionary, ReleaseDictionary> consumed(matching);
    if (existing == nullptr) return kIOReturnBadArgument;
    Object iterator{Object::Kind::Iterator};
    const kern_return_t status = list_services(matching->name, iterator.entries);
    if (status != kIOReturnSuccess) return status;
    *existing = iterator.entries.empty() ? IO_OBJECT_NULL : names().add(std::move(iterator));
    return kIOReturnSuccess;
} catch (const std::bad_alloc&) {
    return kIOReturnNoMemory;
}

io_object_t IOIteratorNext(io_iterator_t iterator) try {
    Object service{Object::Kind::Service};
    bool found = false;
    names().with(iterator, Object::Kind::Iterator, [&](Object& object) {
        if (object.entries.empty()) return;
        service.entry = object.entries.back();
        object.entries.pop_back();
        found = true;
    });
    return found ? names().add(std::move(service)) : IO_OBJECT_NULL;
} catch (const std::bad_alloc&) {
    return IO_OBJECT_NULL;
}

kern_return_t IOObjectRelease(io_object_t object) try {
    Object removed{Object::Kind::Service};
    if (!names().release(object, removed)) return KERN_INVALID_NAME;
    if (removed.connection) removed.connection->close();
    return KERN_SUCCESS;
} catch (const std::bad_alloc&) {
    return kIOReturnNoMemory;
}

kern_return_t IOServiceOpen(io_service_t service, task_port_t, uint32_t type, io_connect_t* connect) try {
    if (connect == nullptr) return kIOReturnBadArgument;
    kivplatform_request request{};
    request.kind = KIVPLATFORM_OPEN;
    request.number = type;
    if (!names().with(service, Object::Kind::Service,
                      [&](Object& object) { request.entry = object.entry; })) {
        return names().status_without(service);
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
} catch (const std::bad_alloc&) {
    return kIOReturnNoMemory;
}

kern_return_t IOServiceClose(io_connect_t connect) try {
    if (!names().connection(connect)) return names().status_without(connect);
    return IOObjectRelease(connect);
} catch (const std::bad_alloc&) {
    return kIOReturnNoMemory;
}

kern_return_t IOConnectCallStructMethod(mach_port_t connection, uint32_t selector, const void* input,
                                        size_t input_size, void* output, size_t* output_size) try {
    const auto found = names().connection(connection);
    if (!found) return MACH_SEND_INVALID_DEST;
    kivplatform_request request{};
    request.kind = KIVPLATFORM_CALL;
    request.number = selector;
    return call(*found, request, {input, input_size, output, output_size});
} catch (const std::bad_alloc&) {
    return kIOReturnNoMemory;
}

kern_return_t IOConnectCallAsyncStructMethod(mach_port_t connection, uint32_t selector, mach_port_t wake_port,
                                             uint64_t* reference, uint32_t reference_count, const void* input,
                                             size_t input_size, void* output, size_t* output_size) try {
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
        call(*found, request, {input, input_size, output, output_size}, far_end.get());
    if (status != kIOReturnSuccess) return status;
    return found->add(channel, port) ? kIOReturnSuccess : MACH_SEND_INVALID_DEST;
} catch (const std::bad_alloc&) {
    return kIOReturnNoMemory;
}

kern_return_t IOConnectMapMemory64(io_connect_t connect, uint32_t memory_type, task_port_t,
                                   mach_vm_address_t* address, mach_vm_size_t* size,
                                   IOOptionBits options) try {
    const auto found = names().connection(connect);
    if (!found) return MACH_SEND_INVALID_DEST;
    if (address == nullptr || size == nullptr || (options & kIOMapAnywhere) == 0) return kIOReturnBadArgument;
    kivplatform_mapping bytes{};
    Descriptor file;
    kern_return_t status = ask_for_memory(*found, memory_type, file, bytes);
    if (status == kIOReturnSuccess) status = found->mappings().map(file, bytes, *address);
    if (status == kIOReturnSuccess) *size = bytes.size;
    return status;
} catch (const std::bad_alloc&) {
    return kIOReturnNoMemory;
}

// The address tells a mapping at a place that the caller has chosen. One that was made anywhere is known by
// its memory only.
kern_return_t IOConnectUnmapMemory64(io_connect_t connect, uint32_t memory_type, task_port_t,
                                     mach_vm_address_t) try {
    const auto found = names().connection(connect);
    if (!found) return MACH_SEND_INVALID_DEST;
    kivplatform_mapping bytes{};
    Descriptor file;
    const kern_return_t status = ask_for_memory(*found, memory_type, file, bytes);
    return status == kIOReturnSuccess ? found->mappings().unmap(bytes) : status;
} catch (const std::bad_alloc&) {
    return kIOReturnNoMemory;
}
