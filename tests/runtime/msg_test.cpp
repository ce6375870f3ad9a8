#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <optional>
#include <regex>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "runtime/modules.h"
#include "runtime/msg.h"
#include "runtime/msg_testing.h"
#include "tests/runtime/stderr_capture.h"
#include "tests/run_support.h"
#include "tests/test_support.h"

namespace {

struct Fatal_called {
    int code;
};
void throwing_fatal_handler(int code) { throw Fatal_called{code}; }

struct Callback_line {
    uint32_t level;
    std::string line;
    std::string text;
    int32_t number;
};
std::vector<Callback_line> g_callback_lines;
void recording_callback(uint32_t level, const char* line, const char* text, int32_t number)
{
    g_callback_lines.push_back({level, line, text, number});
}


class MsgTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        qv_test_init();
        // Fatal lines always go to a log file: keep it in our own directory.
        setenv("temp", dir_.path().c_str(), 1);
        unsetenv("QV_LOGFILE");
        unsetenv("QV_KEEP_FB");
        msg_testing_reset_all();
        msg_set_host_number(0);
        context_ = thread_context();
        saved_thread_number_ = context_->thread_number;
        g_callback_lines.clear();
        // Lines come from MAIN unless a test enters another module.
        main_scope_.emplace(MOD_MAIN);
    }
    void TearDown() override
    {
        main_scope_.reset();
        context_->thread_number = saved_thread_number_;
        unsetenv("QV_LOGFILE");
        msg_testing_reset_all();
        msg_set_host_number(0);
    }

    Temp_dir dir_;
    Thread_context* context_ = nullptr;
    int32_t saved_thread_number_ = 0;
    std::optional<Module_scope> main_scope_;
};

// Every console form, once (the plain ones before and after the host layer starts are the
// end-to-end runs' banner): each row starts from the state of a fresh process in module MAIN on
// the main thread and gives exactly what reaches stderr.
TEST_F(MsgTest, EachLineFormReachesTheConsoleExactly)
{
    const std::string exact(1313, 'a'), b_run(1313, 'b');
    const struct {
        const char* what;
        std::function<void()> run;
        std::string err;
    } cases[] = {
        // The module name cut to four letters; thread 12, then a detached thread, on host 7.
        {"prefix",
         [this] {
             Module_scope scope(MOD_SERIAL);
             context_->thread_number = 12;
             msg_error("a");
             context_->thread_number = THREAD_NUMBER_DETACHED;
             msg_error("b");
             msg_set_host_number(7);
             msg_warn("c");
         },
         "SERI 0.12 error: a\nSERI 0.n  error: b\nSERI 7.n  warn : c\n"},
        // The caller's number keeps its last three digits; GEOCO and GEOQV number as modules 9, 9.
        {"numbers",
         [] {
             msg_defaults();
             msg_warn_n(1018, "main");
             Module_scope geo(MOD_GEOCO);
             msg_error_n(5, "geo");
             Module_scope geoqv(MOD_GEOQV);
             msg_warn_n(3, "geoqv");
         },
         "MAIN 0.0  warn   242018: main\nGEOC 0.0  error  091005: geo\nGEOQ 0.0  warn   092003: geoqv\n"},
        {"message code only with its class",
         [] {
             msg_set_classes(MOD_MAIN, MSG_CLASS_DEFAULT & ~MSG_CLASS_MSGCODE);
             msg_error_n(12, "no code");
             msg_set_classes(0, MSG_CLASS_MSGCODE);
             msg_error_n(12, "code");
             msg_error("unnumbered");
         },
         "MAIN 0.0  error: no code\nMAIN 0.0  error  241012: code\nMAIN 0.0  error: unnumbered\n"},
        // 1,313 characters fit; longer texts are cut with dots on each side of every cut.
        {"long texts",
         [&] {
             msg_error("%s", exact.c_str());
             msg_warn("%s", (exact + b_run + "c").c_str());
         },
         "MAIN 0.0  error: " + exact + "\nMAIN 0.0  warn : " + exact + "...\nMAIN 0.0  warn : ..." + b_run +
             "...\nMAIN 0.0  warn : ...c\n"},
        {"newlines, empty and filtered texts",
         [] {
             msg_set_levels(0x1f);
             msg_info("one\ntwo\n%s", "three\n");
             msg_info("%s", "");
             msg_debug("filtered");
             msg_set_levels(MSG_FATAL);
             msg_error("filtered too");
         },
         "MAIN 0.0  info : one two three \n"},
        {"colours only on a character device",
         [] {
             msg_set_colors("ry");
             msg_error("plain");
             msg_testing_set_console_char_device(1);
             msg_error("coloured");
             msg_warn("cyan");
         },
         "MAIN 0.0  error: plain\n\033[93mMAIN 0.0  error: coloured\n\033[0m\033[96mMAIN 0.0  warn : cyan\n\033[0m"},
        {"bad class list",
         [] {
             msg_defaults();
             uint32_t mask = 0;
             msg_parse_class_list(&mask, "phase,bogus");
         },
         "LIB  0.0  error  291048: invalid message list, use 0..31,none,default,all,none,phase,"
         "progress,vprogress,time,scene,memory,render,vrender,resources,network,files,debug,"
         "msgcode,msgtrans,tessellate\n"},
    };
    for (const auto& c : cases) {
        msg_testing_reset_all();
        msg_set_host_number(0);
        context_->thread_number = saved_thread_number_;
        Stderr_capture capture;
        c.run();
        EXPECT_EQ(capture.finish(), c.err) << c.what;
    }
}

// The fatal sequence: console line (the only one a callback leaves on the console), the abort
// hook, the handler, and the short form in the log; the callback gets every line numbered in full.
TEST_F(MsgTest, FatalPrintsRunsTheSequenceAndLogsTheShortForm)
{
    static int abort_calls;
    static int abort_value;
    abort_calls = 0;
    msg_set_abort_hook([](int value) {
        ++abort_calls;
        abort_value = value;
    });
    EXPECT_EQ(msg_set_fatal_handler(throwing_fatal_handler), static_cast<Msg_fatal_handler>(exit));
    msg_defaults();
    qv_errorhandler(recording_callback);
    msg_warn("unnumbered");
    Stderr_capture capture;
    try {
        msg_fatal_n(7, "disk %s gone", "c");
        FAIL() << "fatal returned";
    } catch (const Fatal_called& called) {
        EXPECT_EQ(called.code, 1);
    }
    // An empty fatal prints no line but still ends in the handler.
    EXPECT_THROW(msg_fatal("%s", ""), Fatal_called);
    EXPECT_EQ(capture.finish(), "MAIN 0.0  fatal  241007: disk c gone\n");
    EXPECT_EQ(abort_calls, 1);
    EXPECT_EQ(abort_value, 5);
    ASSERT_GE(g_callback_lines.size(), 2u);
    EXPECT_EQ(g_callback_lines[0].number, 242000);
    EXPECT_EQ(g_callback_lines[0].text, "unnumbered");
    EXPECT_EQ(g_callback_lines[1].line, "MAIN 0.0  fatal  241007: disk c gone");
    EXPECT_EQ(g_callback_lines[1].level, uint32_t(MSG_FATAL));

    std::string log = read_file(dir_.file("quovlib.log"));
    EXPECT_NE(log.find("] MAIN fatal: disk c gone\n"), std::string::npos) << log;
    EXPECT_NE(log.find("] MAIN fatal: \n"), std::string::npos) << log;
    EXPECT_EQ(log.find("0.0  fatal"), std::string::npos) << "console form must not be logged";
}

TEST_F(MsgTest, LogFileTakesEveryLineInTheRecordFormat)
{
    std::string path = dir_.file("run.log");
    setenv("QV_LOGFILE", path.c_str(), 1);
    msg_testing_reset_output();
    msg_set_fatal_handler(throwing_fatal_handler);
    Stderr_capture capture;
    msg_warn("first %d", 1);
    EXPECT_THROW(msg_fatal("last"), Fatal_called);
    EXPECT_EQ(capture.finish(), "") << "with a log file nothing reaches the console";

    const std::string head = "[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4}\n\\.20: quovlib\\[" +
                             std::to_string(getpid()) + "\\] ";
    const std::string log = read_file(path);
    EXPECT_TRUE(std::regex_match(log, std::regex("^" + head + "MAIN 0\\.0  warn : first 1\n" + head +
                                                 "MAIN 0\\.0  fatal: last\n" + head + "MAIN fatal: last\n$")))
        << log;
    struct stat info;
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0666u);
}

TEST_F(MsgTest, TimerReportNeedsTheTimeClass)
{
    msg_set_levels(0x1f);
    double* timer = msg_timer_start();
    Stderr_capture capture;
    msg_timer_report(timer, "merge");
    msg_set_classes(MOD_MAIN, MSG_CLASS_TIME);
    *timer -= 3723.5;  // one hour, two minutes, three and a half seconds ago
    msg_timer_report(timer, "merge");
    msg_timer_report(timer, "total");
    msg_timer_free(timer);
    std::string out = capture.finish();
    std::regex expected("MAIN 0\\.0  info : wallclock  1:02:03\\.[0-9]{2} for merge\n"
                        "MAIN 0\\.0  info : allocated [0-9]+ MB, max resident [0-9]+ MB\n"
                        "MAIN 0\\.0  info : wallclock  1:02:03\\.[0-9]{2} total\n"
                        "MAIN 0\\.0  info : allocated [0-9]+ MB, max resident [0-9]+ MB\n");
    EXPECT_TRUE(std::regex_match(out, expected)) << out;
}

}  // namespace
