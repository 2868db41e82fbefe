/* Writes a firmware image and waits until the card is idle again. Usage: write_flash ID FILE */
#include <kiv/kiv_api.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

static kiv_result_t write_flash(uint8_t id, const char* path) {
    kiv_flash_status_t status = 1;
    kiv_result_t result = kiv_write_flash_image(id, path);
    if (result == KIV_OK) printf("the card has the image and writes it\n");
    while (result == KIV_OK && status != 0) {
        sleep(1);
        result = kiv_get_flash_write_status(id, &status);
    }
    return result;
}

int main(int argc, char** argv) {
    const kiv_log_config_t log = {KIV_LOG_LEVEL_WARNING};
    kiv_scan_t found = {0};
    char* end = NULL;
    const long id = argc == 3 ? strtol(argv[1], &end, 10) : -1;
    if (end == NULL || *end != '\0' || id < 0 || id > UINT8_MAX) {
        fprintf(stderr, "usage: write_flash ID FILE\n");
        return 2;
    }
    kiv_result_t result = kiv_open(&log);
    if (result == KIV_OK) result = kiv_scan(&found);
    if (result == KIV_OK) result = write_flash((uint8_t)id, argv[2]);
    if (result == KIV_OK) {
        printf("done: kiv_select_flash_slot chooses the slot to boot\n");
    } else {
        fprintf(stderr, "the image is not written, or the card cannot be asked: 0x%08X\n", result);
    }
    kiv_close();
    return result == KIV_OK ? 0 : 1;
}
