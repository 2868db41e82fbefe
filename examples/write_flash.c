/* Writes a firmware image, waits until the card is idle again, and tells which slot has changed.
 * Usage: write_flash ID FILE */
#include <kiv/kiv_api.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

enum {
    LONGEST_SECONDS = 600,
    LONGEST_SILENCE_SECONDS = 15,
    LATEST_START_SECONDS = 10,
    LARGEST_BYTES = 256 << 20
};

#define MAY_GO_ON "the card may still be writing: leave its power on\n"

static void end_for_signal(int number) {
    (void)number;
    (void)!write(STDERR_FILENO, MAY_GO_ON, sizeof MAY_GO_ON - 1);
    _exit(1);
}

/* -1 unless the whole word is an id. No leading zero: 010 is eight to some programs and ten to others. */
static int id_of(const char* word) {
    char* end = NULL;
    const long id = strtol(word, &end, 10);
    const int plain = (*word >= '1' && *word <= '9') || strcmp(word, "0") == 0;
    return plain && *end == '\0' && id <= UINT8_MAX ? (int)id : -1;
}

/* What is wrong with the file itself is no fault of the card: it is said before anything is sent. */
static int is_image(const char* path) {
    struct stat state;
    if (stat(path, &state) != 0 || !S_ISREG(state.st_mode) || access(path, R_OK) != 0) {
        fprintf(stderr, "%s is no regular file that can be read\n", path);
        return 0;
    }
    if (state.st_size == 0 || state.st_size > LARGEST_BYTES) {
        fprintf(stderr, "%s has %lld bytes; an image has 1 to %d\n", path, (long long)state.st_size,
                LARGEST_BYTES);
        return 0;
    }
    return 1;
}

static void show_progress(uint64_t sent, uint64_t total, void* user) {
    unsigned* tenths = user;
    const unsigned now = total == 0 ? 0 : (unsigned)(sent * 10 / total);
    if (now != *tenths)
        printf("sent %llu of %llu bytes\n", (unsigned long long)sent, (unsigned long long)total);
    *tenths = now;
}

/* Bit 0 for slot 0, bit 1 for slot 1. */
static unsigned changed_slots(const kiv_flash_config_t* before, const kiv_flash_config_t* after) {
    return (memcmp(before->slot0_id, after->slot0_id, sizeof after->slot0_id) != 0 ? 1u : 0u) |
           (memcmp(before->slot1_id, after->slot1_id, sizeof after->slot1_id) != 0 ? 2u : 0u);
}

/* A card that is busy with its flash may leave single questions unanswered. One that is idle at first may not
 * have begun, or be done already: then a slot has changed. */
static kiv_result_t wait_until_idle(uint8_t id, const kiv_flash_config_t* before) {
    const time_t start = time(NULL);
    time_t last_answer = start;
    int begun = 0;
    for (;;) {
        kiv_flash_status_t status = 1;
        kiv_flash_config_t after = {0};
        const kiv_result_t result = kiv_get_flash_write_status(id, &status);
        const time_t now = time(NULL);
        if (result == KIV_OK) last_answer = now;
        if (result == KIV_OK && status != 0) begun = 1;
        if (result == KIV_OK && status == 0) {
            if (begun || (kiv_get_flash_config(id, &after) == KIV_OK && changed_slots(before, &after) != 0))
                return KIV_OK;
            if (now - start > LATEST_START_SECONDS) {
                fprintf(stderr, "no write was seen to start\n");
                return KIV_OK;
            }
        }
        if (now - last_answer > LONGEST_SILENCE_SECONDS || now - start > LONGEST_SECONDS) {
            fprintf(stderr, MAY_GO_ON);
            return result == KIV_OK ? KIV_ERR_BUSY : result;
        }
        sleep(1);
    }
}

static int name_slot(unsigned changed) {
    if (changed == 0 || changed == 3) {
        fprintf(stderr, "%s\n",
                changed == 3 ? "both slots have changed" : "no slot has changed: nothing was written");
        return 1;
    }
    printf("slot %u is written: kiv_select_flash_slot makes the card boot it\n", changed - 1);
    return 0;
}

static int write_flash(uint8_t id, const char* path) {
    kiv_flash_config_t before = {0};
    kiv_flash_config_t after = {0};
    unsigned tenths = 0;
    kiv_result_t result = kiv_get_flash_config(id, &before);
    signal(SIGINT, end_for_signal);
    if (result == KIV_OK) result = kiv_write_flash_image_with_progress(id, path, show_progress, &tenths);
    if (result == KIV_OK) result = wait_until_idle(id, &before);
    if (result == KIV_OK) result = kiv_get_flash_config(id, &after);
    if (result == KIV_OK) return name_slot(changed_slots(&before, &after));
    fprintf(stderr, "the image is not seen to be written: %s\n", kiv_result_text(result));
    return 1;
}

/* A scan of the one card: what is wrong with others does not matter. */
static int find_card(uint8_t id) {
    const kiv_log_config_t log = {KIV_LOG_LEVEL_WARNING};
    kiv_scan_each_t found = {0};
    kiv_result_t result = kiv_open(&log);
    if (result == KIV_OK) result = kiv_scan_each(&id, 0, &found);
    if (result == KIV_OK) result = found.count == 0 ? KIV_ERR_NO_DEVICE : found.cards[0].result;
    if (result != KIV_OK) fprintf(stderr, "card %u cannot be used: %s\n", id, kiv_result_text(result));
    return result == KIV_OK;
}

int main(int argc, char** argv) {
    const int id = argc == 3 ? id_of(argv[1]) : -1;
    if (id < 0) {
        fprintf(stderr, "usage: write_flash ID FILE\n");
        return 2;
    }
    if (!is_image(argv[2])) return 1;
    const int status = find_card((uint8_t)id) ? write_flash((uint8_t)id, argv[2]) : 1;
    kiv_close();
    return status;
}
