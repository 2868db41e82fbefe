// The least that a program with kivctl's libraries costs; with an argument, the least that a scan costs.
#include <kiv/kiv_api.h>

#include <cstdlib>

int main(int argc, char**) {
    if (argc < 2) return 0;
    kiv_scan_each_t cards{};  // As kivctl does: all cards at once.
    std::_Exit(kiv_scan_each(nullptr, 0, &cards) == KIV_OK ? 0 : 1);
}
