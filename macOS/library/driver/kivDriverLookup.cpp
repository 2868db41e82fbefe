// Lookup in a list of clients.
#include <algorithm>
#include <cstring>

#include <kiv/kivDriverClient.h>
#include "driver/driverLog.h"

namespace {

using Client = std::shared_ptr<kivDriverClient>;

/// The first client of the list that matches, or an empty pointer.
template <typename Match>
Client first(const kivDriverClientList& list, Match match) {
    const auto found =
        std::find_if(list.begin(), list.end(), [&](const Client& client) { return match(*client); });
    return found == list.end() ? nullptr : *found;
}

Client by_ordinal(const kivDriverClientList& list, uint8_t index, uint8_t func_id) {
    uint8_t count = 0;
    return first(list, [&](const kivDriverClient& client) {
        return client.get_func_id() == func_id && count++ == index;
    });
}

Client by_function_id(const kivDriverClientList& list, uint8_t device_id, uint8_t func_id) {
    return first(list, [&](const kivDriverClient& client) {
        return client.device_conf.device_index == device_id && client.get_func_id() == func_id;
    });
}

Client by_address(const kivDriverClientList& list, uint32_t ip0, uint32_t ip1, uint32_t tun) {
    return first(list, [&](const kivDriverClient& client) {
        const auto& conf = client.device_conf;
        // Zero addresses match too: docs/oddities.md.
        return conf.ip[0] == ip0 || conf.ip[1] == ip1 || conf.tun == tun;
    });
}

}  // namespace

std::shared_ptr<kivDriverClient> kivDriverClient::get_class_sptr_iterator(kivDriverClientList& list,
                                                                          uint8_t index, uint8_t func_id) {
    Client found = by_ordinal(list, index, func_id);
    // The name that log readers know: docs/oddities.md.
    if (!found) driver_log(__LINE__, "Fail get_class_ptr_array index=%u func_id=%u\n", index, func_id);
    return found;
}

kivDriverClient* kivDriverClient::get_class_ptr_iterator(kivDriverClientList& list, uint8_t index,
                                                         uint8_t func_id) {
    return get_class_sptr_iterator(list, index, func_id).get();
}

kivDriverClient* kivDriverClient::get_class_ptr_ByPciId(kivDriverClientList& list, uint8_t device_id,
                                                        uint8_t funcNumber) {
    const Client found = first(list, [&](const kivDriverClient& client) {
        return client.device_conf.device_index == device_id && client.boot_conf.function == funcNumber;
    });
    if (!found) {
        driver_log(__LINE__, "Fail get_class_ptr_ByPciId device_id=%u funcNumber=%u\n", device_id,
                   funcNumber);
    }
    return found.get();
}

kivDriverClient* kivDriverClient::get_class_ptr_ByPciId_FuncId(kivDriverClientList& list, uint8_t device_id,
                                                               uint8_t func_id) {
    const Client found = by_function_id(list, device_id, func_id);
    if (!found) {
        driver_log(__LINE__, "Fail get_class_ptr_ByPciId_FuncId device_id=%u func_id=%u\n", device_id,
                   func_id);
    }
    return found.get();
}

std::shared_ptr<kivDriverClient> kivDriverClient::get_class_sptr_ByPciId_FuncId(kivDriverClientList& list,
                                                                                uint8_t device_id,
                                                                                uint8_t func_id) {
    Client found = by_function_id(list, device_id, func_id);
    if (!found) {
        driver_log(__LINE__, "Fail get_class_sptr_ByPciId_FuncId device_id=%u func_id=%u\n", device_id,
                   func_id);
    }
    return found;
}

kivDriverClient* kivDriverClient::get_class_ptr_ByIp(kivDriverClientList& list, uint32_t ip0, uint32_t ip1,
                                                     uint32_t tun) {
    const Client found = by_address(list, ip0, ip1, tun);
    if (!found) {
        driver_log(__LINE__, "Fail get_class_ptr_ByIp ip[0]=%08X ip[1]=%08X tun=%08X\n", ip0, ip1, tun);
    }
    return found.get();
}

std::shared_ptr<kivDriverClient> kivDriverClient::get_class_sptr_ByIp(kivDriverClientList& list, uint32_t ip0,
                                                                      uint32_t ip1, uint32_t tun) {
    Client found = by_address(list, ip0, ip1, tun);
    if (!found) {
        driver_log(__LINE__, "Fail get_class_sptr_ByIp ip[0]=%08X ip[1]=%08X tun=%08X\n", ip0, ip1, tun);
    }
    return found;
}

kivDriverClientList kivDriverClient::get_SiblingDevice(kivDriverClientList& list, uint8_t index,
                                                       uint8_t func_id) {
    const Client anchor = by_ordinal(list, index, func_id);
    if (!anchor) {
        driver_log(__LINE__, "Fail get_SiblingDevice index=%u func_id=%u\n", index, func_id);
        return {};
    }
    // The anchor stands first and once more at its own place: docs/oddities.md.
    kivDriverClientList siblings{anchor};
    for (const Client& client : list) {
        if (client->same_card(*siblings.back())) siblings.push_back(client);
    }
    return siblings;
}

uint8_t kivDriverClient::get_pci_function_count(kivDriverClientList& list, uint8_t func_id) {
    return static_cast<uint8_t>(std::count_if(
        list.begin(), list.end(), [&](const Client& client) { return client->get_func_id() == func_id; }));
}

bool kivDriverClient::same_card(const kivDriverClient& other) const {
    const boot_conf_t& a = boot_conf;
    const boot_conf_t& b = other.boot_conf;
    if (a.identity_kind != b.identity_kind) return false;
    if (a.identity_kind != 0) return a.identity == b.identity;
    return std::memcmp(a.identity_text, b.identity_text, sizeof a.identity_text) == 0;
}
