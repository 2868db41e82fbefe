/* Prints the events of all cards until Ctrl-C, or for some seconds. Usage: watch_events [SECONDS] */
#include <kiv/kiv_api.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

/* Runs on threads of the library, perhaps several at once: a single printf each keeps lines whole. */
static void print_event(uint8_t id, kiv_event_type_t event, const void* data, void* user) {
    (void)user;
    if (event == KIV_EVENT_LINK) {
        const kiv_event_link_t* link = data;
        printf("card %u: link of port 0 is %s, of port 1 %s\n", id, link->port_0_link ? "up" : "down",
               link->port_1_link ? "up" : "down");
    } else if (event == KIV_EVENT_PTP) {
        printf("card %u: PTP state %u\n", id, *(const uint32_t*)data);
    } else if (event == KIV_EVENT_HWMON) {
        const kiv_event_hwmon_t* report = data;
        unsigned alarms = 0;
        for (unsigned i = 0; i < 7; ++i)
            alarms += report->entry[i].alarm;
        printf("card %u: %u sensors at or above their maximum\n", id, alarms);
    }
    fflush(stdout);
}

/* The registration comes first: an event that nobody listens to is not raised again. */
static kiv_result_t watch(uint8_t id) {
    const kiv_event_type_t events[] = {KIV_EVENT_LINK, KIV_EVENT_HWMON, KIV_EVENT_PTP};
    kiv_result_t result = kiv_register_callback_func(id, print_event, NULL);
    for (unsigned i = 0; i < 3 && result == KIV_OK; ++i)
        result = kiv_enable_event(id, events[i]);
    return result;
}

int main(int argc, char** argv) {
    /* Blocked before the library starts threads, so that only the wait below sees them. */
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &ends, NULL);

    const kiv_log_config_t log = {KIV_LOG_LEVEL_WARNING};
    kiv_scan_t found = {0};
    kiv_result_t result = kiv_open(&log);
    if (result == KIV_OK) result = kiv_scan(&found);
    for (unsigned i = 0; i < found.count && result == KIV_OK; ++i)
        result = watch(found.devices[i].device_id);
    if (result == KIV_OK) {
        int received = 0;
        if (argc > 1) alarm((unsigned)strtoul(argv[1], NULL, 10));
        sigwait(&ends, &received);
    } else {
        fprintf(stderr, "the cards cannot be watched: 0x%08X\n", result);
    }
    kiv_close(); /* Ends the registrations too. */
    return result == KIV_OK ? 0 : 1;
}
