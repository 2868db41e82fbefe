// Every function against every fault of what it asks: its result, its time, what is left behind, and that the
// next call works.
#include <iostream>
#include <map>
#include <sstream>

#include "faults/functions.h"
#include "support/Patterns.h"
#include "support/ThisProcess.h"

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kLimit{5000};  ///< Of a cell as it runs here, where nothing waits for seconds.

struct Cell {
    std::string name;
    std::string result;
    std::string fault;  ///< Members of the simulator's fault: JSON.
    Way way = Way::AsTheyStand;
    milliseconds at_least{0};
};

std::vector<Cell> server_cells(const Function& f) {
    if (*f.request == 0) return {};
    const Answers& a = f.answers;
    std::vector<Cell> cells = {
        {"connection refused", a.none, "", Way::ToClosedPort},
        {"delay past the limit", a.none, R"("delay_ms": 40)", Way::InHaste},
        {"cut before the answer", a.none, R"("cut": "before")"},
        {"cut mid-body", a.none, R"("cut": "inside")"},
        {"garbage", a.unreadable, R"("body": "<html>\u0001 \u00e9</html>")"},
        {"nothing", a.unreadable, R"("body": "")"},
        {"half a document", a.unreadable, R"("body": "{\"data\": [{\"label\": \"QS")"},
        {"a number", a.number, R"("body": "{\"data\": 5}")"},
        {"a text", a.text, R"("body": "{\"data\": \"text\"}")"},
        {"an array", a.array, R"("body": "{\"data\": [5]}")"},
        {"an object", a.object, R"("body": "{\"data\": {}}")"},
    };
    if (f.wrong != nullptr)
        cells.push_back({"wrong members", f.misread, std::string(R"("patch": )") + f.wrong});
    for (const char* const status : {"400", "401", "403", "404", "500", "503"}) {
        const std::string shown =
            a.status == std::string("http status") ? a.status + std::string(" ") + status : a.status;
        cells.push_back({status, shown, R"("carried_out": false, "status": )" + std::string(status)});
    }
    return cells;
}

std::vector<Cell> driver_cells(const Function& f) {
    std::vector<Cell> cells;
    for (const Asked& asked : f.driver) {
        const std::string selector = "\"selector\": " + std::to_string(asked.selector) + ", ";
        const std::string of = " of call " + std::to_string(asked.selector);
        cells.push_back({"error" + of, asked.failed, selector + R"("status": "0xE00002BC")"});
        cells.push_back({"delay" + of, f.good, selector + R"("delay_ms": 30)", {}, milliseconds(30)});
        if (asked.selector == wire::kInit || asked.selector == wire::kDeinit)
            continue;  // They have no reply.
        const std::string cut = asked.cut;
        for (const char* const left : {"0", "3"})
            cells.push_back({left + (" bytes of the reply" + of), cut.empty() ? f.good : cut,
                             selector + R"("reply_size": )" + left});
    }
    if (!cells.empty()) cells.push_back({"process gone", f.gone, ""});
    return cells;
}

/// Whether it asks the server or the driver.
bool asks(const Function& f) {
    return *f.request != 0 || !f.driver.empty();
}

std::string path_of(const Function& f) {
    const std::string request = f.request;
    return request.substr(request.find(' ') + 1);
}

struct Faults : testing::Test {
    Faults() {
        for (const Function& f : kFunctions) {
            if (asks(f)) expect_good(f);
        }
        bench.start();
        const Stopwatch watch;
        while (watch.elapsed() < milliseconds(300)) {
            descriptors = std::min(descriptors, open_descriptors());
            threads = std::min(threads, running_threads());
            std::this_thread::sleep_for(milliseconds(2));
        }
    }

    /// Threads are counted once: those of the simulator wait a while for the next request.
    ~Faults() override {
        EXPECT_TRUE(wait_until([&] { return running_threads() <= threads; }, kLimit)) << running_threads();
    }

    std::string result_of(const Function& f, Way way) try {
        g_seam.path = path_of(f);
        g_seam.way = way;
        g_seam.attempts = g_seam.limited = 0;
        g_seam.waiting_ms = 0;
        return f.call(bench);
    } catch (const std::exception&) {
        return "throws";
    }

    /// The write of an image before holds up the next one.
    void wait_for_flash(const Function& f) {
        if (path_of(f).find("firmware") == std::string::npos) return;
        g_seam.path = "";
        EXPECT_TRUE(wait_until([&] { return bench.client.get_fw_status() == "idle"; }));
    }

    void expect_good(const Function& f) {
        wait_for_flash(f);
        EXPECT_EQ(result_of(f, Way::AsTheyStand), f.good) << f.name << " when all is well";
    }

    void expect_bad(const Function& f, const Cell& cell) {
        bench.log.again();
        bench.log.take();
        const Stopwatch watch;
        EXPECT_EQ(result_of(f, cell.way), cell.result);
        EXPECT_TRUE(cell.at_least <= watch.elapsed() && watch.elapsed() < kLimit)
            << watch.elapsed().count() << " ms";
    }

    /// With a fault of the list in force.
    void expect_bad_with(const Function& f, const Cell& cell, const std::string& list,
                         const std::string& fault) {
        wait_for_flash(f);
        if (!cell.fault.empty()) {
            ASSERT_EQ(bench.simulator->control("POST", list, fault).status, 200) << fault;
        }
        expect_bad(f, cell);
        const std::string applied = bench.simulator->control("GET", list).body;
        EXPECT_EQ(applied.find("\"hits\":0"), std::string::npos) << applied;
        bench.simulator->control("DELETE", list);
    }

    /// The next call works, and nothing is left behind.
    void expect_well_again(const Function& f) {
        expect_good(f);
        EXPECT_TRUE(wait_until([&] { return open_descriptors() <= descriptors; }, kLimit))
            << open_descriptors() - descriptors << " left open";
    }

    void expect_server_cells(const std::string& functions) {
        for (const Function& f : kFunctions) {
            if (!std::string(f.name).starts_with(functions)) continue;
            const std::string request = f.request, method = request.substr(0, request.find(' '));
            const std::string meant = R"({"method": ")" + method + R"(", "path": ")" + path_of(f) + "\", ";
            for (const Cell& cell : server_cells(f)) {
                SCOPED_TRACE(f.name + (": " + cell.name));
                expect_bad_with(f, cell, "/http_faults", meant + cell.fault + "}");
                EXPECT_TRUE(g_seam.attempts > 0 && g_seam.limited == g_seam.attempts);
                EXPECT_LE(g_seam.waiting_ms, f.seconds * 1000);
                expect_well_again(f);
            }
        }
    }

    Bench bench;
    std::ptrdiff_t descriptors = PTRDIFF_MAX, threads = PTRDIFF_MAX;
};

}  // namespace

TEST_F(Faults, OfTheServerAreResultsInTimeOfTheCInterface) {
    expect_server_cells("kiv_");
}

TEST_F(Faults, OfTheServerAreResultsInTimeOfTheClient) {
    expect_server_cells("hpsClient::");
}

TEST_F(Faults, OfTheDriverAreResultsInTime) {
    for (const Function& f : kFunctions) {
        for (const Cell& cell : driver_cells(f)) {
            SCOPED_TRACE(f.name + (": " + cell.name));
            if (cell.fault.empty()) {
                bench.simulator->stop();
                expect_bad(f, cell);
                bench.start();
            } else {
                expect_bad_with(f, cell, "/driver_faults", "{" + cell.fault + "}");
            }
            expect_well_again(f);
        }
    }
}

TEST_F(Faults, DoNotReachWhatAsksNobody) {
    bench.simulator->stop();
    for (const Function& f : kFunctions) {
        if (asks(f) || f.call == nullptr) continue;
        EXPECT_EQ(f.call(bench), f.good) << f.name;
    }
    bench.start();
}

TEST(FaultTable, HasEveryFunctionAndIsCountedInTheManual) {
    std::map<std::string, int> rows;
    std::size_t of_server = 0, of_driver = 0;
    for (const Function& f : kFunctions) {
        ++rows[f.name];
        of_server += server_cells(f).size();
        of_driver += driver_cells(f).size();
    }
    std::istringstream exported(read_file(KIV_EXPORTED_SYMBOLS));
    const std::string wanted = "^(kiv_|kivDext_|hpsClient::(?!hpsClient|~))[^\\[(]+";
    for (std::string line; std::getline(exported, line);) {
        for (const std::string& name : matches_of(line, wanted)) {
            EXPECT_GE(rows[name]--, 1) << line;
        }
    }
    const std::string counts = std::to_string(of_server) + " of the server, " + std::to_string(of_driver) +
                               " of the driver, " + std::to_string(of_server + of_driver) + " in all";
    std::cout << "cells: " << counts << std::endl;
    EXPECT_NE(read_file(KIV_RELIABILITY_PAGE).find(counts), std::string::npos) << counts;
}
