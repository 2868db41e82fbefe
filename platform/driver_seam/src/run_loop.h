/// Run loops and their sources.
#ifndef KIVPLATFORM_RUN_LOOP_H
#define KIVPLATFORM_RUN_LOOP_H

#include <CoreFoundation/CFRunLoop.h>
#include <kivos/per_process.h>

#include <cstddef>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "cf_object.h"
#include "channel.h"

/// The source of a notification port.
struct __CFRunLoopSource final : kivplatform::CfObject {
    const std::shared_ptr<kivplatform::Channels> channels = std::make_shared<kivplatform::Channels>();
};

/// In a forked child the parent's loops do nothing.
struct __CFRunLoop final : kivplatform::CfObject {
  public:
    void add(const std::shared_ptr<kivplatform::Channels>& source, CFRunLoopMode mode);
    void stop();

    /// By the loop's own thread only; may be nested in a callback.
    CFRunLoopRunResult run(CFRunLoopMode mode, CFTimeInterval seconds, bool return_after_source_handled);

  private:
    class Run;
    using Sources = std::vector<std::shared_ptr<kivplatform::Channels>>;

    Sources sources_of(CFRunLoopMode mode);
    bool handle_one(const Sources& sources, int wait_ms);

    const kivos::Birthplace birthplace_{};
    std::mutex mutex_;  ///< Guards the next two.
    std::vector<std::pair<CFRunLoopMode, std::shared_ptr<kivplatform::Channels>>> sources_;
    bool stopped_ = false;  ///< Of the innermost run.

    const std::shared_ptr<kivplatform::Waker> waker_ = std::make_shared<kivplatform::Waker>();
    std::size_t turn_ = 0;  ///< Of the loop's thread: no channel is first for ever.
};

#endif
