#include "log_capture.h"

#include <regex.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <gtest/gtest.h>

#include "tavrel_host.h"

namespace logcap {
namespace {

std::vector<std::string> file_chunks;
std::vector<diag_record> diags;
std::vector<android_record> androids;
FILE *capture_file = nullptr;

// Each record ends with fflush, so the stream hands every record to the
// cookie writer in one piece.
ssize_t cookie_write(void *, const char *data, size_t size)
{
    file_chunks.emplace_back(data, size);
    return static_cast<ssize_t>(size);
}

void diag_sink(const tavrel_log_site *site, const char *text)
{
    diags.push_back(diag_record{*site, site, text});
}

const char *level_of_mask(uint32_t mask)
{
    switch (mask) {
    case 1: return "LOW";
    case 2: return "MED";
    case 4: return "HIGH";
    case 8: return "ERR";
    default: return "?";
    }
}

}  // namespace

void start(bool file_on, uint32_t mask)
{
    stop();
    file_chunks.clear();
    diags.clear();
    androids.clear();
    cookie_io_functions_t io{};
    io.write = cookie_write;
    capture_file = fopencookie(nullptr, "w", io);
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
    if (capture_file) {
        fclose(capture_file);
        capture_file = nullptr;
    }
}

std::vector<file_record> file_records()
{
    // POSIX extended expression: g++ 12 reports <regex> falsely at -O2 with the sanitizers.
    regex_t prefix;
    const bool compiled = regcomp(&prefix, R"(^( *[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{1,3}) ( *[^[:space:]]+) ( *[^[:space:]]+)\(\):( *[0-9]+) \((LOW|MED|HIGH|ERR)\):)", REG_EXTENDED) == 0;
    EXPECT_TRUE(compiled);
    std::vector<file_record> out;
    for (const auto &chunk : file_chunks) {
        file_record r;
        r.raw = chunk;
        regmatch_t m[6];
        if (!compiled || regexec(&prefix, chunk.c_str(), 6, m, 0) != 0) {
            ADD_FAILURE() << "log file record without prefix: " << chunk;
            continue;
        }
        const auto group = [&](int i) { return chunk.substr(m[i].rm_so, m[i].rm_eo - m[i].rm_so); };
        r.prefix = group(0);
        r.time = group(1);
        r.source_file = group(2);
        r.function = group(3);
        r.line = static_cast<unsigned>(std::stoul(group(4)));
        r.level = group(5);
        std::string rest = chunk.substr(r.prefix.size());
        EXPECT_FALSE(rest.empty() || rest.back() != '\n') << "record not closed by a newline: " << chunk;
        if (!rest.empty())
            rest.pop_back();
        r.message = rest;
        out.push_back(r);
    }
    if (compiled)
        regfree(&prefix);
    return out;
}

const std::vector<diag_record> &diag_records() { return diags; }
const std::vector<android_record> &android_records() { return androids; }

std::vector<std::string> file_lines()
{
    std::vector<std::string> out;
    for (const auto &r : file_records())
        out.push_back(r.level + " " + r.message);
    return out;
}

std::vector<std::string> diag_lines()
{
    std::vector<std::string> out;
    for (const auto &d : diags)
        out.push_back(std::string(level_of_mask(d.site.level_mask)) + " " + d.text);
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
    unsigned where = 0;
    for (const auto &r : file_records())
        if (r.message == text)
            where |= FILE_SINK;
    for (const auto &d : diags)
        if (d.text == text)
            where |= DIAG_SINK;
    for (const auto &a : androids)
        if (a.text == text)
            where |= ANDROID_SINK;
    return where;
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
        const int prio = d.site.level_mask == 1 ? 3 : d.site.level_mask == 8 ? 6 : 4;
        EXPECT_EQ(a.priority, prio) << d.text;
        EXPECT_EQ(d.site.subsys_id, 65);
        EXPECT_STREQ(d.site.format, "%s");
        bool skip = false;
        for (const auto &t : no_file)
            skip = skip || t == d.text;
        if (!skip)
            expected_file.push_back(std::string(level_of_mask(d.site.level_mask)) + " " + d.text);
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
