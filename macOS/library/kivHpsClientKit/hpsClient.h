/// Client of the HTTP/JSON management server on a card's on-board processor. One object stands for one card.
/// Needs the version of nlohmann/json that kiv was built with: see kivClient.h.
#ifndef KIV_HPS_CLIENT_H
#define KIV_HPS_CLIENT_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include <kiv/hpsRecords.h>
#include <kiv/kivClient.h>
#include <kiv/kiv_export.h>
#include <kiv/threadSafety.h>

class ThreadManagerClientAlive;
class ThreadManagerClientPolling;
namespace hps {
struct Endpoint;
}

/// Operations return 0, or -1 with outputs untouched, unless said otherwise. A failed request leaves a line
/// in the log, if that is open: without kivLog_open or kiv_open there is none until an open_config succeeds.
/// A client without a configuration answers every request as a server that cannot be reached. What the server
/// sends in a wrong shape throws the JSON library's exceptions.
///
/// Threads: requests may run on several threads at once, also while the client is configured anew: each works
/// with the connection that it started with. setting_thread() is for one thread, once in the life of the
/// client.
class KIV_API hpsClient {
  public:
    /// A client without a server.
    hpsClient();

    /// Ends the background threads: at once, or when the request that they are in returns. In a forked child
    /// of the process that made the client it only leaves them alone.
    ~hpsClient();

    hpsClient(const hpsClient&) = delete;
    hpsClient& operator=(const hpsClient&) = delete;

    // ---- Connection -----------------------------------------------------------------------------------

    /// Version of this client: 3.0.0.
    void get_version(uint16_t& major, uint16_t& minor, uint16_t& patch) const;

    std::string get_url() const;      ///< Base URL: "http://", address, ":", port, "/api/v1.0".
    std::string get_address() const;  ///< Address of the server, dotted IPv4.

    /// Uses the server at `ip` and the decimal `port_text`, and asks it for the card's interfaces. -1 for an
    /// empty `ip` (nothing changes), and when the server gives no list of interfaces: no answer, a status
    /// other than 200 to 299, or an answer that is not JSON or has no "interfaces" (the client uses that
    /// server all the same). Throws std::invalid_argument or std::out_of_range when `port_text` does not
    /// begin with a number; get_address() gives the new `ip` then, and requests still go to the former
    /// server. On success the library's log is set to level info and its back end; then, with
    /// `start_threads`, setting_thread() is called.
    int32_t open_config(const std::string& ip, const std::string& port_text, bool start_threads);

    /// The same for the card that the configuration file at `config_path` describes: by a host interface
    /// through which its server is reached ("hps_access"."ifnames"), or by the address of a media port. The
    /// first card that matches is taken. -1 also for an empty path, a file that cannot be opened, and when no
    /// card matches: nothing changes then. JSON errors are thrown, and std::runtime_error for more than 100
    /// levels, 1000 keys in one object or 64 MiB.
    int32_t open_config_ifname(const std::string& config_path, bool start_threads, const std::string& ifname);
    int32_t open_config_ipaddr(const std::string& config_path, bool start_threads, const std::string& ipaddr);

    /// The same with the address and port already stored.
    int32_t _open_config(bool start_threads);

    /// Starts the background threads: one keeps this process registered with the card, one reads the PTP
    /// documents every 60 s. Waits up to 2 s for their first reading. A second call ends the process.
    void setting_thread();

    // ---- Interfaces -----------------------------------------------------------------------------------

    /// Asks the card for its interfaces and appends them to the client's list, or to the caller's: also those
    /// before a broken one, which throws.
    int32_t get_interface_info();
    int32_t get_interface_info(std::vector<inteface_info>& list);

    /// A copy of the client's list: what get_interface_info() has read so far. No request.
    std::vector<inteface_info> interfaces() const;

    /// Asks whether one of the card's interfaces has this address. False also on failure.
    bool exist_ip_address(const std::string& ip);

    /// Hands the card a network reconfiguration command.
    int32_t reconfig_network(const std::string& cmd);

    // ---- Multicast, monitoring, capture, log ----------------------------------------------------------

    /// Joins or leaves a group on behalf of this process.
    int32_t igmp_join(const hps_igmp& igmp);
    int32_t igmp_leave(const hps_igmp& igmp);

    /// A line "[pid]: group" for each membership; "Fail get IGMP List" on failure.
    std::string get_igmp_list();

    /// Asks for the hardware monitor. `raw` true: the payload itself, indented by 4 spaces. False: a report
    /// in text, a line for each sensor; `out` stays as it is when the payload is not an array.
    int32_t get_hwmon_info(std::string& out, bool raw);

    /// Captures packets on one of the card's interfaces.
    int32_t start_tcpdump(const std::string& if_name, uint32_t seconds);

    /// Saves the card's log.
    int32_t get_log_tmp(const std::string& file_path);

    // ---- PTP ------------------------------------------------------------------------------------------

    /// The documents as JSON text, indented by 4 spaces, or as records.
    int32_t get_ptp_master(std::string& text);
    int32_t get_ptp_management(std::string& text);
    int32_t get_ptp_master(PtpMaster& master);
    int32_t get_ptp_management(PtpManagement& management);

    /// The digest that the background thread keeps. No request. -1 when that thread does not run.
    /// Applications use the name so spelt.
    int32_t get_hps_ptp_sm_backgroud(hps_ptp_sm& out);

    // ---- Registration of a process --------------------------------------------------------------------

    /// Registers a process with the card, and says that it is still there.
    int32_t registry_alive(int32_t id);
    int32_t keep_alive(int32_t id);

    // ---- Firmware -------------------------------------------------------------------------------------

    /// Uploads a firmware image, see HttpClient::upload().
    int32_t fw_upload(const std::string& file_path);
    int32_t fw_upload(const std::string& file_path, const UploadProgress& progress);

    /// Starts (or, with false, cancels) the update with the uploaded file. `md5` is its checksum, 32
    /// lower-case hexadecimal digits; it is sent as given.
    int32_t fw_start(bool start, const std::string& md5);

    /// The server's word for the state of the update, "idle" when there is none; empty on failure.
    std::string get_fw_status();

    /// Identifiers of the images in the two slots. One that the server does not name stays as it is.
    int32_t get_firmware_info(std::string& user1, std::string& user2);

    /// Chooses the image to boot next.
    int32_t fw_switch(uint8_t image);

    // ---- Requests -------------------------------------------------------------------------------------

    /// Requests to a path under the base URL. Without a body text the body is JSON null; a body text that is
    /// not JSON throws the JSON library's parse_error, one of more than 100 levels or 1000 keys in one object
    /// std::runtime_error.
    HttpResult http_get(const std::string& path);
    HttpResult http_get(const std::string& path, const std::string& file_path);  ///< Download into a file.
    HttpResult http_post(const std::string& path);
    HttpResult http_post(const std::string& path, const std::string& body_text);
    HttpResult http_post_file(const std::string& path, const std::string& file_path);  ///< Upload of a file.
    HttpResult http_post_file(const std::string& path, const std::string& file_path,
                              const UploadProgress& progress);
    HttpResult http_patch(const std::string& path);
    HttpResult http_patch(const std::string& path, const std::string& body_text);
    HttpResult http_delete(const std::string& path);
    HttpResult http_delete(const std::string& path, const std::string& body_text);

    /// Dotted text of an address, first octet in the most significant byte.
    static std::string convert2string(uint32_t address);

  private:
    using Json = nlohmann::ordered_json;

    template <typename Request>
    KIV_LOCAL HttpResult send(Request request) const;
    template <typename Matches>
    KIV_LOCAL int32_t open_matching(const std::string& config_path, bool start_threads, Matches matches,
                                    const char* complaint, const std::string& wanted);

    KIV_LOCAL HttpResult request(const hps::Endpoint& endpoint, const Json& body,
                                 const std::string& suffix = {}) const;
    KIV_LOCAL bool fetch(const hps::Endpoint& endpoint, Json& payload) const;
    KIV_LOCAL int32_t command(const hps::Endpoint& endpoint, const Json& body,
                              const std::string& suffix = {}) const;
    KIV_LOCAL int32_t fetch_text(const hps::Endpoint& endpoint, std::string& text) const;
    KIV_LOCAL Json igmp_body(const hps_igmp& igmp) const;

    const int32_t process_id_;  ///< Identity towards the card.

    mutable std::mutex mutex_;  ///< Never held during a request.
    std::string ip_address_ KIV_GUARDED_BY(mutex_);
    int32_t port_ KIV_GUARDED_BY(mutex_) = 0;
    std::string base_url_ KIV_GUARDED_BY(mutex_);
    /// Shared with the requests under way; empty before the first configuration.
    std::shared_ptr<HttpClient> http_ KIV_GUARDED_BY(mutex_);
    std::unique_ptr<ThreadManagerClientAlive> alive_ KIV_GUARDED_BY(mutex_);
    /// Shared with the readers of its digest.
    std::shared_ptr<ThreadManagerClientPolling> polling_ KIV_GUARDED_BY(mutex_);
    std::vector<inteface_info> interfaces_ KIV_GUARDED_BY(mutex_);
};

#endif
