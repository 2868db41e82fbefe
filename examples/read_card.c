/* Reads one card: identity, temperatures, links and PTP. Usage: read_card ID */
#include <inttypes.h>
#include <kiv/kiv_api.h>
#include <stdio.h>
#include <stdlib.h>

/* Says what failed; then the values are not to be used. */
static int failed(const char* what, kiv_result_t result) {
    if (result == KIV_OK) return 0;
    fprintf(stderr, "%s: 0x%08X\n", what, result);
    return 1;
}

static int read_card(uint8_t id) {
    kiv_card_info_t info = {0};
    kiv_card_status_t status = {0};
    kiv_net_status_t net = {0};
    kiv_ptp_status_t ptp = {0};
    if (failed("identity", kiv_get_card_info(id, &info))) return 1;
    if (failed("status", kiv_get_card_status(id, &status))) return 1;
    if (failed("links", kiv_get_net_status(id, &net))) return 1;
    if (failed("PTP", kiv_get_ptp_status(id, &ptp))) return 1;

    printf("card word    0x%016" PRIX64 "\n", info.reg_10);
    printf("FPGA fabric  %" PRIu32 " (alarm at %" PRIu32 ")\n", status.sensor[0].input, status.sensor[0].max);
    printf("board power  %" PRIu32 "\n", status.board_power);
    printf("port 0       %s, link %s\n", info.port[0].mac_address, net.link_up_0 ? "up" : "down");
    printf("port 1       %s, link %s\n", info.port[1].mac_address, net.link_up_1 ? "up" : "down");
    printf("PTP          state %" PRIu32 ", grandmaster 0x%016" PRIX64 "\n", ptp.state, ptp.clock_identity);
    return 0;
}

int main(int argc, char** argv) {
    const kiv_log_config_t log = {KIV_LOG_LEVEL_WARNING};
    kiv_scan_t found = {0};
    char* end = NULL;
    const long id = argc == 2 ? strtol(argv[1], &end, 10) : -1;
    if (end == NULL || *end != '\0' || id < 0 || id > UINT8_MAX) {
        fprintf(stderr, "usage: read_card ID\n");
        return 2;
    }
    if (failed("open", kiv_open(&log)) || failed("scan", kiv_scan(&found))) return 1;
    const int result = read_card((uint8_t)id);
    kiv_close();
    return result;
}
