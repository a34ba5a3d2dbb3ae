// The log statement: which sinks run, the file record's prefix, the
// descriptor handed to the diagnostics channel, and the Android priorities.
#include <sys/time.h>

#include <cstdlib>
#include <ctime>

#include "tavrel_test.h"

namespace {

// A fixed clock for the file sink's time text; 0 means the real one.
struct timeval fixed_now = {0, 0};

void log_each_level()
{
    TAVREL_LOG(LOW, "%s(): low %d\n", "log_fn", 1);
    TAVREL_LOG(MED, "%s(): med\n", "log_fn");
    TAVREL_LOG(HIGH, "%s(): high\n", "log_fn");
    TAVREL_LOG(ERR, "%s(): err %s\n", "log_fn", "x");
    TAVREL_LOG_NOFILE(ERR, "%s(): not in the file\n", "log_fn");
}

const tavrel_log_site *site_of_one_line()
{
    TAVREL_LOG(MED, "%s(): same site\n", "log_fn");
    return logcap::diag_records().back().site_address;
}

}  // namespace

extern "C" int gettimeofday(struct timeval *tv, void *)
{
    if (fixed_now.tv_sec != 0) {
        *tv = fixed_now;
        return 0;
    }
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    tv->tv_sec = ts.tv_sec;
    tv->tv_usec = ts.tv_nsec / 1000;
    return 0;
}

class Log : public TavrelTest {
protected:
    void TearDown() override
    {
        fixed_now = {0, 0};
        TavrelTest::TearDown();
    }
};

TEST_F(Log, SinksRunOnTheirOwnSwitches)
{
    const struct {
        bool file_on;
        bool fd_null;
        uint32_t mask;
        unsigned sinks;
    } cases[] = {
        {true, false, 3, logcap::ALL_SINKS},
        {true, true, 3, logcap::NO_FILE},  // switch on but no file
        {false, false, 3, logcap::NO_FILE},
        {true, false, 1, logcap::FILE_SINK | logcap::DIAG_SINK},
        {true, false, 2, logcap::FILE_SINK | logcap::ANDROID_SINK},
        {false, false, 0, 0},
        {true, false, 0xfffffffc, logcap::FILE_SINK},  // only bits 0 and 1 count
    };
    for (const auto &c : cases) {
        logcap::start(c.file_on, c.mask);
        if (c.fd_null)
            logging_fd = nullptr;
        TAVREL_LOG(HIGH, "%s(): hello %d\n", "log_fn", 7);
        EXPECT_EQ(logcap::sinks_of("log_fn(): hello 7\n"), c.sinks) << c.file_on << c.fd_null << c.mask;
    }
}

TEST_F(Log, LevelsPrioritiesAndTexts)
{
    log_each_level();
    EXPECT_EQ(logcap::file_lines(), (lines{"LOW log_fn(): low 1\n", "MED log_fn(): med\n", "HIGH log_fn(): high\n",
                                           "ERR log_fn(): err x\n"}));
    EXPECT_EQ(logcap::diag_lines(), (lines{"LOW log_fn(): low 1\n", "MED log_fn(): med\n", "HIGH log_fn(): high\n",
                                           "ERR log_fn(): err x\n", "ERR log_fn(): not in the file\n"}));
    // MED and HIGH share the Android priority INFO.
    EXPECT_EQ(logcap::android_lines(), (lines{"3 log_fn(): low 1\n", "4 log_fn(): med\n", "4 log_fn(): high\n",
                                              "6 log_fn(): err x\n", "6 log_fn(): not in the file\n"}));
    for (const auto &a : logcap::android_records())
        EXPECT_EQ(a.tag, "ZR-TAVREL-LIB");
}

TEST_F(Log, FileRecordPrefixAndTrailingEmptyLine)
{
    setenv("TZ", "UTC", 1);
    tzset();
    fixed_now = {14 * 3600 + 3 * 60 + 7, 7999};  // 14:03:07, 7 ms
    TAVREL_LOG(ERR, "%s(): broken %d\n", "tavrel_example", 3);
    const int line = __LINE__ - 1;
    const auto records = logcap::file_records();
    ASSERT_EQ(records.size(), 1u);
    char expected[512];
    snprintf(expected, sizeof expected, "%25s %70s %40s():%3u (ERR):tavrel_example(): broken 3\n\n", "14:03:07.7",
             "tests/unit/test_log.cpp", "tavrel_example", line);
    EXPECT_EQ(records[0].raw, expected);

    fixed_now.tv_usec = 123456;
    TAVREL_LOG(LOW, "%s(): x\n", "f");
    EXPECT_EQ(logcap::file_records().back().time, std::string(13, ' ') + "14:03:07.123");
}

TEST_F(Log, EachCallSiteHasOneConstantDescriptor)
{
    const tavrel_log_site *first = site_of_one_line();
    const tavrel_log_site *again = site_of_one_line();
    EXPECT_EQ(first, again);
    TAVREL_LOG(ERR, "%s(): elsewhere\n", "log_fn");
    const int line = __LINE__ - 1;
    const auto &d = logcap::diag_records().back();
    EXPECT_NE(d.site_address, first);
    EXPECT_EQ(d.site.line, line);
    EXPECT_EQ(d.site.subsys_id, 65);
    EXPECT_EQ(d.site.level_mask, 8u);
    EXPECT_STREQ(d.site.format, "%s");
    EXPECT_STREQ(d.site.file, "tests/unit/test_log.cpp");
    EXPECT_EQ(first->level_mask, 2u);
}

TEST_F(Log, DiagnosticsTextIsCutTo511Characters)
{
    const std::string long_text(600, 'a');
    TAVREL_LOG(LOW, "%s(): %s\n", "f", long_text.c_str());
    EXPECT_EQ(logcap::diag_records().back().text.size(), 511u);
    EXPECT_EQ(logcap::android_records().back().text.size(), 600u + 6);  // "f(): " and the newline
}
