/// A sink for the platform's unified system log.
#ifndef KIV_OS_LOG_SINK_H
#define KIV_OS_LOG_SINK_H

#include <os/log.h>
#include <spdlog/sinks/base_sink.h>

#include <mutex>
#include <string>

namespace spdlog::sinks {

class os_log_sink final : public base_sink<std::mutex> {
  public:
    /// Throws spdlog_ex when the system log gives the disabled object.
    os_log_sink(std::string subsystem, std::string category);

  protected:
    void sink_it_(const details::log_msg& msg) override;
    void flush_() override {}

  private:
    os_log_t handle_;  ///< Never released, as the platform wants it.
    std::string subsystem_;
    std::string category_;
};

}  // namespace spdlog::sinks

#endif
