// The log statement: which sinks run, the file record, the call-site
// descriptor and the Android priorities.
#include <sys/time.h>

#include <cstdlib>
#include <ctime>
#include <utility>

#include "tavrel_test.h"

namespace {
struct timeval fixed_now = {0, 0};  // 0: the real clock
}

// The file sink's clock, fixed when a test needs a known time text.
extern "C" int gettimeofday(struct timeval *tv, void *)
{
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    *tv = fixed_now.tv_sec ? fixed_now : timeval{ts.tv_sec, ts.tv_nsec / 1000};
    return 0;
}

class Log : public TavrelTest {};

TEST_F(Log, SinksRunOnTheirOwnSwitches)
{
    const struct {
        bool file_on, fd_null;
        uint32_t mask;
        unsigned sinks;
    } cases[] = {
        {true, false, 3, logcap::ALL_SINKS},       {true, true, 3, logcap::NO_FILE},
        {false, false, 3, logcap::NO_FILE},        {true, false, 1, logcap::FILE_SINK | logcap::DIAG_SINK},
        {true, false, 2, logcap::FILE_SINK | logcap::ANDROID_SINK}, {false, false, 0, 0},
        {true, false, 0xfffffffc, logcap::FILE_SINK},
    };
    for (const auto &c : cases) {
        logcap::start(c.file_on, c.mask);
        if (c.fd_null)
            logging_fd = nullptr;
        TAVREL_LOG(HIGH, "%s(): hello %d\n", "log_fn", 7);
        TAVREL_LOG_NOFILE(HIGH, "%s(): nofile\n", "log_fn");
        EXPECT_EQ(logcap::sinks_of("log_fn(): hello 7\n"), c.sinks) << c.file_on << c.fd_null << c.mask;
        EXPECT_EQ(logcap::sinks_of("log_fn(): nofile\n"), c.sinks & ~logcap::FILE_SINK);
    }
}

TEST_F(Log, LevelsPrioritiesAndDescriptors)
{
    TAVREL_LOG(LOW, "%s(): low %d\n", "log_fn", 1);
    TAVREL_LOG(MED, "%s(): med\n", "log_fn");
    TAVREL_LOG(HIGH, "%s(): high\n", "log_fn");
    TAVREL_LOG(ERR, "%s(): err %s\n", "log_fn", "x");
    const unsigned err_line = __LINE__ - 1;
    EXPECT_EQ(logcap::file_lines(), (lines{"LOW log_fn(): low 1\n", "MED log_fn(): med\n", "HIGH log_fn(): high\n",
                                           "ERR log_fn(): err x\n"}));
    // MED and HIGH share the Android priority INFO.
    EXPECT_EQ(logcap::android_lines(),
              (lines{"3 log_fn(): low 1\n", "4 log_fn(): med\n", "4 log_fn(): high\n", "6 log_fn(): err x\n"}));
    logcap::expect_sinks_agree();
    const auto &d = logcap::diag_records();
    EXPECT_EQ(d[3].site.line, err_line);
    EXPECT_EQ(d[3].site.level_mask, 8u);
    EXPECT_STREQ(d[3].site.file, "tests/unit/test_log.cpp");
    EXPECT_EQ(d[1].site.level_mask, 2u);

    // One constant descriptor per call site.
    for (int i = 0; i < 2; i++)
        TAVREL_LOG(LOW, "%s(): again\n", "log_fn");
    EXPECT_EQ(d[4].site_address, d[5].site_address);
    EXPECT_NE(d[4].site_address, d[3].site_address);
}

TEST_F(Log, FileRecordPrefixAndTrailingEmptyLine)
{
    setenv("TZ", "UTC", 1);
    tzset();
    // Milliseconds are not zero-padded and are cut, not rounded.
    const std::pair<suseconds_t, const char *> times[] = {{7999, "14:03:07.7"}, {999500, "14:03:07.999"}};
    for (const auto &[usec, text] : times) {
        logcap::start();
        fixed_now = {14 * 3600 + 3 * 60 + 7, usec};
        TAVREL_LOG(ERR, "%s(): broken %d\n", "tavrel_example", 3);
        const int line = __LINE__ - 1;
        fixed_now = {0, 0};
        char expected[512];
        snprintf(expected, sizeof expected, "%25s %70s %40s():%3u (ERR):tavrel_example(): broken 3\n\n", text,
                 "tests/unit/test_log.cpp", "tavrel_example", line);
        EXPECT_EQ(logcap::file_records(), lines{expected});
    }
}
