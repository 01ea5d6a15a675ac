// The USB stick the archive goes to (-d): a write test before collecting,
// and the clean-up that -r would ask for.
#ifndef QUELVANE_USB_DEVICE_H
#define QUELVANE_USB_DEVICE_H

#include <string>

#include "console.h"
#include "result.h"

// Writes, reads back and removes a test file beside output_path; refused
// when any of it fails.
Result usb_write_test(const std::string &output_path);

// After the operator's yes, removes every file under the mount point (the
// output path less its last two components) and makes the output's
// directory again. *declined when the answer was no.
Result usb_prepare_device(const Console &console, const std::string &output_path, const std::string &usb_device,
                          bool yes, bool no, bool *declined);

#endif
