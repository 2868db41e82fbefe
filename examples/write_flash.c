/* Writes a firmware image, waits until the card is idle again, and tells which slot has changed.
 * Usage: write_flash ID FILE */
#include <kiv/kiv_api.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

enum { LONGEST_SECONDS = 600, LONGEST_SILENCE_SECONDS = 15, LARGEST_BYTES = 256 << 20 };

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

/* A card that is busy with its flash may leave single questions unanswered. */
static kiv_result_t wait_until_idle(uint8_t id) {
    const time_t start = time(NULL);
    time_t last_answer = start;
    for (;;) {
        kiv_flash_status_t status = 1;
        const kiv_result_t result = kiv_get_flash_write_status(id, &status);
        const time_t now = time(NULL);
        if (result == KIV_OK && status == 0) return KIV_OK;
        if (result == KIV_OK) last_answer = now;
        if (now - last_answer > LONGEST_SILENCE_SECONDS || now - start > LONGEST_SECONDS) {
            fprintf(stderr, "the card may still be writing: leave its power on\n");
            return result == KIV_OK ? KIV_ERR_BUSY : result;
        }
        sleep(1);
    }
}

static int name_slot(const kiv_flash_config_t* before, const kiv_flash_config_t* after) {
    const int changed_0 = memcmp(before->slot0_id, after->slot0_id, sizeof after->slot0_id) != 0;
    const int changed_1 = memcmp(before->slot1_id, after->slot1_id, sizeof after->slot1_id) != 0;
    if (changed_0 == changed_1) {
        fprintf(stderr, "%s\n",
                changed_0 ? "both slots have changed" : "no slot has changed: nothing was written");
        return 1;
    }
    printf("slot %d is written: kiv_select_flash_slot makes the card boot it\n", changed_1);
    return 0;
}

static int write_flash(uint8_t id, const char* path) {
    kiv_flash_config_t before = {0};
    kiv_flash_config_t after = {0};
    unsigned tenths = 0;
    kiv_result_t result = kiv_get_flash_config(id, &before);
    if (result == KIV_OK) result = kiv_write_flash_image_with_progress(id, path, show_progress, &tenths);
    if (result == KIV_OK) result = wait_until_idle(id);
    if (result == KIV_OK) result = kiv_get_flash_config(id, &after);
    if (result == KIV_OK) return name_slot(&before, &after);
    fprintf(stderr, "the image is not seen to be written: %s\n", kiv_result_text(result));
    return 1;
}

int main(int argc, char** argv) {
    const kiv_log_config_t log = {KIV_LOG_LEVEL_WARNING};
    kiv_scan_t found = {0};
    char* end = NULL;
    const long id = argc == 3 && *argv[1] >= '0' && *argv[1] <= '9' ? strtol(argv[1], &end, 10) : -1;
    if (end == NULL || *end != '\0' || id < 0 || id > UINT8_MAX) {
        fprintf(stderr, "usage: write_flash ID FILE\n");
        return 2;
    }
    if (!is_image(argv[2])) return 1;
    kiv_result_t result = kiv_open(&log);
    if (result == KIV_OK) result = kiv_scan(&found);
    int status = 1;
    if (result == KIV_OK) {
        status = write_flash((uint8_t)id, argv[2]);
    } else {
        fprintf(stderr, "the cards cannot be scanned: %s\n", kiv_result_text(result));
    }
    kiv_close();
    return status;
}
