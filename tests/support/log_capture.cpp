#include "log_capture.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <gtest/gtest.h>

#include "tavrel_host.h"

namespace logcap {
namespace {

std::vector<std::string> file_chunks;
std::vector<diag_record> diags;
struct android_record {
    int priority;
    std::string tag, text;
};
std::vector<android_record> androids;
FILE *capture_file = nullptr;

// Each record ends with fflush, so the stream hands every record to the
// cookie writer in one piece.
ssize_t cookie_write(void *, const char *data, size_t size)
{
    file_chunks.emplace_back(data, size);
    return static_cast<ssize_t>(size);
}

void diag_sink(const tavrel_log_site *site, const char *text) { diags.push_back(diag_record{*site, site, text}); }

std::string level_of_mask(uint32_t mask)
{
    return mask == 1 ? "LOW" : mask == 2 ? "MED" : mask == 4 ? "HIGH" : mask == 8 ? "ERR" : "?";
}

// A file record is "time file function():line (LEVEL):message\n\n"; the
// prefix's exact layout is the log tests' business.
std::string file_message(const std::string &record, std::string *level = nullptr)
{
    const size_t open = record.find(" (", record.find("():")), close = record.find("):", open);
    EXPECT_TRUE(close != std::string::npos && record.size() >= close + 3 && record.back() == '\n') << record;
    if (close == std::string::npos || record.size() < close + 3)
        return record;
    if (level)
        *level = record.substr(open + 2, close - open - 2);
    return record.substr(close + 2, record.size() - close - 3);
}

}  // namespace

void start(bool file_on, uint32_t mask)
{
    stop();
    file_chunks.clear();
    diags.clear();
    androids.clear();
    capture_file = fopencookie(nullptr, "w", cookie_io_functions_t{nullptr, cookie_write, nullptr, nullptr});
    setvbuf(capture_file, nullptr, _IOFBF, 1 << 16);
    logging_fd = capture_file;
    log_to_file = file_on ? 1 : 0;
    kv_log_mask = mask;
    tavrel_host_set_diag_sink(diag_sink);
}

void stop()
{
    log_to_file = 0;
    kv_log_mask = 0;
    logging_fd = nullptr;
    tavrel_host_set_diag_sink(nullptr);
    if (capture_file)
        fclose(capture_file);
    capture_file = nullptr;
}

const std::vector<std::string> &file_records() { return file_chunks; }
const std::vector<diag_record> &diag_records() { return diags; }

std::vector<std::string> file_lines()
{
    std::vector<std::string> out;
    for (const auto &r : file_chunks) {
        std::string level;
        const std::string message = file_message(r, &level);
        out.push_back(level + " " + message);
    }
    return out;
}

std::vector<std::string> diag_lines()
{
    std::vector<std::string> out;
    for (const auto &d : diags)
        out.push_back(level_of_mask(d.site.level_mask) + " " + d.text);
    return out;
}

std::vector<std::string> android_lines()
{
    std::vector<std::string> out;
    for (const auto &a : androids)
        out.push_back(std::to_string(a.priority) + " " + a.text);
    return out;
}

unsigned sinks_of(const std::string &text)
{
    const auto has = [&](const auto &records, auto text_of) {
        return std::any_of(records.begin(), records.end(), [&](const auto &r) { return text_of(r) == text; });
    };
    return (has(file_chunks, [](const std::string &r) { return file_message(r); }) ? FILE_SINK : 0u) |
           (has(diags, [](const diag_record &d) { return d.text; }) ? DIAG_SINK : 0u) |
           (has(androids, [](const android_record &a) { return a.text; }) ? ANDROID_SINK : 0u);
}

void expect_sinks_agree(const std::vector<std::string> &no_file)
{
    ASSERT_EQ(diags.size(), androids.size()) << "diagnostics and Android sinks differ";
    std::vector<std::string> expected_file;
    for (size_t i = 0; i < diags.size(); i++) {
        const auto &d = diags[i];
        const auto &a = androids[i];
        EXPECT_EQ(d.text, a.text);
        EXPECT_EQ(a.tag, "ZR-TAVREL-LIB");
        EXPECT_EQ(a.priority, d.site.level_mask == 1 ? 3 : d.site.level_mask == 8 ? 6 : 4) << d.text;
        EXPECT_EQ(d.site.subsys_id, 65);
        EXPECT_STREQ(d.site.format, "%s");
        if (std::find(no_file.begin(), no_file.end(), d.text) == no_file.end())
            expected_file.push_back(level_of_mask(d.site.level_mask) + " " + d.text);
    }
    EXPECT_EQ(file_lines(), expected_file);
}

}  // namespace logcap

// The Android log, interposed so the texts can be compared.
extern "C" int __android_log_print(int priority, const char *tag, const char *format, ...)
{
    char text[4096];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    logcap::androids.push_back(logcap::android_record{priority, tag, text});
    explicit_bzero(text, sizeof text);  // the key-hygiene test scans the caller's stack
    return 1;
}
