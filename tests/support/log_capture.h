// Captures the three log sinks of the library: the log file (record by
// record), the diagnostics channel (site and text) and the Android log
// (priority, tag and text).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "libnltavrel.h"

namespace logcap {

enum sink : unsigned { FILE_SINK = 1, DIAG_SINK = 2, ANDROID_SINK = 4, ALL_SINKS = 7, NO_FILE = 6 };

struct diag_record {
    tavrel_log_site site;  // copy of the descriptor
    const tavrel_log_site *site_address;
    std::string text;
};

// Switches every sink on (file_on: log_to_file and a capturing logging_fd;
// mask: kv_log_mask) and forgets what was captured.
void start(bool file_on = true, uint32_t mask = 3);
// Switches all sinks off and releases the capture file.
void stop();

// The log file's records as written, prefix and trailing empty line included.
const std::vector<std::string> &file_records();
const std::vector<diag_record> &diag_records();

// "LEVEL text" per message, in order, for one sink. The Android sink gives
// "priority text" since MED and HIGH share a priority.
std::vector<std::string> file_lines();
std::vector<std::string> diag_lines();
std::vector<std::string> android_lines();

// Which sinks received exactly this text (a mask of sink values).
unsigned sinks_of(const std::string &text);

// Checks that the diagnostics and Android sinks saw the same texts with
// matching levels and tag, and that the file saw them too except for the
// texts in no_file.
void expect_sinks_agree(const std::vector<std::string> &no_file = {});

}  // namespace logcap
