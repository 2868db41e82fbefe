/// The endpoints of a card's management server, below its base URL.
#ifndef KIV_HPS_ENDPOINTS_H
#define KIV_HPS_ENDPOINTS_H

namespace hps {

enum class Method { Get, Post, Patch, Delete };

struct Endpoint {
    Method method;
    const char* path;
};

// clang-format off
//                                        method             path                               sent -> read
inline constexpr Endpoint kNetworks      {Method::Get,      "/hps/info/networks"};          // -> {interfaces: [...]}
inline constexpr Endpoint kHwmon         {Method::Get,      "/hps/hwmon/info"};             // -> [{label, input, max}]
inline constexpr Endpoint kIgmpJoin      {Method::Post,     "/hps/control/igmp"};           // {settings: [...]}
inline constexpr Endpoint kIgmpLeave     {Method::Delete,   "/hps/control/igmp"};           // {settings: [...]}
inline constexpr Endpoint kIgmpList      {Method::Get,      "/hps/control/igmp"};           // -> {list: [...]}
inline constexpr Endpoint kTcpdump       {Method::Post,     "/hps/control/tcpdump"};        // {if_name, second}
inline constexpr Endpoint kPtpMaster     {Method::Get,      "/hps/ptp/master"};             // -> PtpMaster
inline constexpr Endpoint kPtpManagement {Method::Get,      "/hps/ptp/management"};         // -> PtpManagement
inline constexpr Endpoint kReconfig      {Method::Post,     "/hps/control/network/reconfig"};  // {reconfig_cmd}
inline constexpr Endpoint kRegister      {Method::Post,     "/alive/"};                     // null; the id follows the path
inline constexpr Endpoint kKeepAlive     {Method::Patch,    "/alive/"};                     // null; the id follows the path
inline constexpr Endpoint kFwStart       {Method::Patch,    "/hps/firmware/control"};       // {start, md5hush}
inline constexpr Endpoint kFwStatus      {Method::Get,      "/hps/firmware/status"};        // -> text
inline constexpr Endpoint kFwInfo        {Method::Get,      "/hps/firmware/info"};          // -> {User1, User2}
inline constexpr Endpoint kFwSwitch      {Method::Patch,    "/hps/firmware/switch"};        // {image}

// Files go by calls of their own.
inline constexpr const char* kLogPath      = "/hps/download/log";      // -> any bytes, into a file
inline constexpr const char* kFwUploadPath = "/hps/firmware/upload";   // a file
// clang-format on

}  // namespace hps

#endif
