/// How a firmware image is written.
#ifndef KIV_FLASH_WRITE_H
#define KIV_FLASH_WRITE_H

#include <kiv/Device.h>

namespace kiv::device {

/// Uploads the image in the file `path`, starts its write and waits until the card has begun, about a second
/// at most. The results are those of kiv_write_flash_image().
kiv_result_t write_flash_image(Device& device, const char* path, const UploadProgress& progress = nullptr);

}  // namespace kiv::device

#endif
