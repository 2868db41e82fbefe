/// What the matrix changes between the library and the system: limits and addresses of requests, and pauses.
#ifndef KIV_TEST_FAULT_SEAMS_H
#define KIV_TEST_FAULT_SEAMS_H

#include <atomic>
#include <string>

enum class Way { AsTheyStand, ToClosedPort, InHaste };  ///< In haste: with a limit of 10 ms for an attempt.

/// Written between requests, which may run on any thread.
struct RequestSeam {
    std::string path;  ///< Requests whose URL contains it are meant; empty: none.
    Way way = Way::AsTheyStand;
    std::atomic<int> attempts{0}, limited{0};  ///< Of those that are meant; and of these, with a time limit.
    std::atomic<long> waiting_ms{0};  ///< What all attempts, of any request, and pauses may have taken.
};
extern RequestSeam g_seam;

#endif
