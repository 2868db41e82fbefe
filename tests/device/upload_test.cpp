// What a Device sends to its card's server when a file, or an address that it needs, cannot be had.
#include <kiv/Device.h>
#include <kiv/RestApiClient.h>

#include <cerrno>

#include "support/CapturedLog.h"
#include "support/LoopbackServer.h"
#include "support/TemporaryDirectory.h"
#include "support/Test.h"

namespace {

thread_local std::size_t t_readable = SIZE_MAX;  ///< Bytes that this thread may still read.
thread_local bool t_ends = false;                ///< Then the file ends; else reading it fails.
thread_local std::string t_growing;              ///< This file is longer by a byte with each reading.

}  // namespace

extern "C" __attribute__((visibility("default"))) ssize_t read(int file, void* buffer, std::size_t size) {
    static const auto real = original<decltype(::read)>("read");
    if (t_readable == 0) {
        errno = EIO;
        return t_ends ? 0 : -1;
    }
    if (!t_growing.empty())
        std::filesystem::resize_file(t_growing, std::filesystem::file_size(t_growing) + 1);
    const ssize_t got = real(file, buffer, std::min(size, t_readable));
    if (got > 0 && t_readable != SIZE_MAX) t_readable -= static_cast<std::size_t>(got);
    return got;
}

namespace {

using kiv::device::Device;

class Commands : public testing::Test {
  protected:
    Commands() { write_file(file, bytes); }

    /// The result of an upload, and the requests that it took; `between` runs when the server has the file.
    std::string upload(const std::function<void()>& between) {
        return with_server(between, [&](Device& device) { return device.upload_image(file); });
    }

    std::string with_server(const std::function<void()>& between,
                            const std::function<kiv_result_t(Device&)>& command) {
        const LoopbackServer::Reply good = LoopbackServer::http(200, R"({"data":{"interfaces":[]}})");
        const LoopbackServer server({good, {good.bytes, {}, between}, good});
        Device device(
            {}, {}, std::make_unique<kiv::rest::RestApiClient>("127.0.0.1:" + std::to_string(server.port())));
        EXPECT_EQ(device.rest()->open(), 0);
        log.again();
        const kiv_result_t result = command(device);
        std::string all = result == KIV_OK ? "ok" : result == KIV_ERR_REST ? "rest" : "failed";
        for (const std::string& request : server.requests())
            all += ' ' + request.substr(0, request.find(' '));
        return all;
    }

    const TemporaryDirectory directory;
    const std::string file = directory / "image", bytes = std::string(200'000, '\xA5');
    CapturedLog log;
};

TEST_F(Commands, AnImageThatCannotBeReadToItsEndIsNotWritten) {
    EXPECT_EQ(upload([] {}), "ok GET POST PATCH");
    for (const bool ends : {false, true}) {
        t_ends = ends;
        t_readable = 100'000;
        EXPECT_EQ(upload([] {}), "rest GET") << "the upload's reading, " << ends;
        t_readable = 300'000;
        EXPECT_EQ(upload([] {}), "rest GET POST") << "the digest's reading, " << ends;
        t_readable = SIZE_MAX;
    }
    t_growing = file;
    EXPECT_EQ(upload([] {}), "rest GET");
    t_growing.clear();
}

TEST_F(Commands, AnImageThatChangesBetweenUploadAndDigestIsNotWritten) {
    const auto modified = std::filesystem::last_write_time(file);
    const auto put = [](const std::string& path, const std::string& text, auto time) {
        write_file(path, text);
        std::filesystem::last_write_time(path, time);
    };
    const std::string other = directory / "other", marks(bytes.size(), '+');
    const std::pair<const char*, std::function<void()>> changes[] = {
        {"longer", [&] { put(file, bytes + "+", modified); }},
        {"other bytes", [&] { put(file, marks, modified + std::chrono::milliseconds(1)); }},
        {"another file",
         [&] {
             put(other, marks, modified);
             std::filesystem::rename(other, file);
         }},
        {"gone", [&] { std::filesystem::remove(file); }},
    };
    for (const auto& [name, change] : changes) {
        put(file, bytes, modified);
        EXPECT_EQ(upload(change), "rest GET POST") << name;
    }
}

TEST_F(Commands, ANetworkIsNotReconfiguredWithoutTheTunnelsAddress) {
    EXPECT_EQ(with_server({}, [](Device& device) { return device.reconfig_net_work({}, {}); }), "failed GET");
}

}  // namespace
