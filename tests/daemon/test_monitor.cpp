// logferry-monitor against hand-driven application ends and real programs: its transcript,
// the levels and texts it sends back, how it attaches, reads and detaches applications, and
// how it starts and stops. The DLT outputs are in test_monitor_dlt.cpp, the peers that do not
// play by the rules in test_monitor_hardening.cpp, several ECUs behind a DLT gateway in
// test_monitor_gateway.cpp; the fixture is support/monitor_fixture.hpp.

#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "support/monitor_fixture.hpp"

namespace {

using namespace logferry;
using namespace logferry_test;
using std::chrono::milliseconds;

TEST_F(Monitor, TranscriptOfOneApplication)
{
    start_monitor({"--level", "MAIN=debug", "--say", "hello app"});
    Test_application app;
    ASSERT_TRUE(attach_registered(app, "TAPP", {{4, 1, "MAIN", "Main context"}, {3, 2, "AUX", "Aux context"}},
                                  "Test application"));
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_enable_local_print())));
    ASSERT_TRUE(app.send_priority(bytes_of(make_init_file("/tmp/test app.log"))));
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_disable_remote())));
    app.release();

    ASSERT_TRUE(app.log(
        bytes_of(start(7, 4, 1), make_text(7, "hello, monitor"), make_value<Logferry_write_bool>(7, 1),
                 make_value<Logferry_write_int8>(7, -5), make_value<Logferry_write_int16>(7, -300), int32(7, 70000),
                 make_value<Logferry_write_int64>(7, -9000000000LL),
                 make_formatted<Logferry_write_uint8_formatted>(7, std::uint8_t{200}, LogFormat::kDefault),
                 make_formatted<Logferry_write_uint16_formatted>(7, std::uint16_t{0xBEEF}, LogFormat::kHex),
                 make_formatted<Logferry_write_uint32_formatted>(7, std::uint32_t{8}, LogFormat::kOct),
                 make_formatted<Logferry_write_uint64_formatted>(7, std::uint64_t{5}, LogFormat::kBin),
                 make_formatted<Logferry_write_uint32_formatted>(7, std::uint32_t{0xABCDEF}, LogFormat::kHexUpper),
                 make_formatted<Logferry_write_uint16_formatted>(7, std::uint16_t{0x1234}, LogFormat::kDec),
                 make_formatted<Logferry_write_uint16_formatted>(7, std::uint16_t{0x1234}, LogFormat::kRaw),
                 make_value<Logferry_write_float32>(7, 3.25f), make_value<Logferry_write_float64>(7, -0.1),
                 make_raw(7, LogFormat::kHex, {0xDE, 0xAD, 0xBE, 0xEF}), make_encoded_payload(7, {0x01, 0x02}),
                 make_finish(7))));
    ASSERT_TRUE(app.log(bytes_of(start(8, 3, 2), make_text(8, "second"), make_finish(8))));
    Logferry_unregister_context unregister;
    unregister.context_handle = 2;
    ASSERT_TRUE(app.log(bytes_of(unregister)));
    ASSERT_TRUE(app.log(bytes_of(Logferry_unregister_app())));
    ASSERT_TRUE(wait_for("-- unregister TAPP\n")) << output();

    // What the monitor sent back: the console text at attachment, then the level update
    // for the context registered as MAIN, as the exact 6 bytes.
    const std::string said = "hello app\n";
    EXPECT_EQ(app.receive(), Bytes(said.begin(), said.end()));
    EXPECT_EQ(app.receive(), (Bytes{24, 5, 1, 0, 0, 0}));

    app.close();
    ASSERT_TRUE(wait_for("-- detach")) << output();
    EXPECT_EQ(stop_monitor(), 0);

    const std::string channel = app.name();
    const std::string expected =
        "-- listening  lock=" + lock_file_ +
        "\n"
        "-- attach     " +
        channel +
        "\n"
        "-- say        " +
        channel +
        " \"hello app\"\n"
        "-- app        TAPP \"Test application\" channel=" +
        channel +
        "\n"
        "-- context    TAPP MAIN handle=1 level=info \"Main context\"\n"
        "-- set-level  TAPP MAIN handle=1 level=debug\n"
        "-- context    TAPP AUX handle=2 level=warn \"Aux context\"\n"
        "-- control    TAPP enable-local-print\n"
        "-- control    TAPP init-file \"/tmp/test app.log\"\n"
        "-- refused    TAPP init-file \"/tmp/test app.log\": no --app-file-dir\n"
        "-- control    TAPP disable-remote\n"
        "<ts> TAPP MAIN info    \"hello, monitor\" true -5 -300 70000 -9000000000 200 0xbeef 010 0b101 0xABCDEF "
        "4660 [34 12] 3.25 -0.1 [de ad be ef] encoded[01 02]\n"
        "<ts> TAPP AUX  warn    \"second\"\n"
        "-- unregister TAPP AUX handle=2\n"
        "-- unregister TAPP\n"
        "-- detach     TAPP " +
        channel +
        " (closed its channel)\n"
        "-- stopped    signal: 2 log messages from 1 application\n";
    EXPECT_EQ(mask_timestamps(output()), expected);
    EXPECT_EQ(errors(), "");
}

TEST_F(Monitor, TimestampsAndArgumentsAreRenderedExactly)
{
    start_monitor();
    Test_application app;
    ASSERT_TRUE(attach_registered(app, "REN", {{6, 0xFFFFFFFF, "VERB", ""}}, "rendering"));
    app.release();

    Logferry_write_utf8_string omitted;  // a text array without zero: no text is carried
    omitted.stream_key = 1;
    omitted.text.fill('x');
    omitted.length = 1398;
    ASSERT_TRUE(app.log(bytes_of(start(1, 6, 0xFFFFFFFF, 123456), make_text(1, "quote \" and\nline"), omitted,
                                 make_raw(1, LogFormat::kDefault, {}, 1500),  // size above 1389: no payload is carried
                                 make_raw(1, LogFormat::kBin, {0x05, 0xF0}), make_raw(1, LogFormat::kHexUpper, {0xAB}),
                                 make_value<Logferry_write_float32>(1, 0.1f), make_value<Logferry_write_bool>(1, 0),
                                 make_formatted<Logferry_write_uint8_formatted>(1, std::uint8_t{0}, LogFormat::kOct),
                                 make_formatted<Logferry_write_uint8_formatted>(1, std::uint8_t{0}, LogFormat::kBin),
                                 make_formatted<Logferry_write_uint64_formatted>(1, ~std::uint64_t{0}, LogFormat::kDec),
                                 make_finish(1))));
    // The largest timestamp, a message without start, an encoded message.
    ASSERT_TRUE(app.log(bytes_of(start(2, 1, 0xFFFFFFFF, 0xFFFFFFFF), make_finish(2))));
    ASSERT_TRUE(app.log(bytes_of(int32(3, -1), make_finish(3))));
    ASSERT_TRUE(app.log(bytes_of(make_encoded_message({9, 8, 7}))));
    ASSERT_TRUE(wait_for("encoded-message")) << output();

    const std::vector<std::string> lines = split_lines(output());
    ASSERT_GE(lines.size(), 8U);
    EXPECT_EQ(lines[4],
              "    12.3456 REN  VERB verbose \"quote \\\" and\\nline\" (text omitted) [1500 bytes not carried] "
              "[00000101 11110000] [AB] 0.1 false 0 0b0 18446744073709551615");
    EXPECT_EQ(lines[5], "429496.7295 REN  VERB fatal");
    EXPECT_EQ(lines[6], "          - REN  -    -       -1");
    EXPECT_EQ(lines[7], "          - REN  -    -       encoded-message[09 08 07]");
    app.close();
}

TEST_F(Monitor, LevelOptionMatchesEveryContextWithThatIdAndNoOther)
{
    start_monitor({"--level", "MAIN=2", "--level=AUX=verbose"});
    Test_application app;
    ASSERT_TRUE(attach_registered(
        app, "LVL", {{4, 0x01020304, "MAIN", ""}, {4, 9, "OTHR", ""}, {4, 10, "AUX", ""}, {1, 11, "MAIN", ""}}));

    // The monitor handles the registrations in order: had OTHR got an update, it would
    // come between these.
    EXPECT_EQ(app.receive(), (Bytes{24, 2, 4, 3, 2, 1}));
    EXPECT_EQ(app.receive(), (Bytes{24, 6, 10, 0, 0, 0}));
    EXPECT_EQ(app.receive(), (Bytes{24, 2, 11, 0, 0, 0}));
    ASSERT_TRUE(wait_for("-- set-level  LVL MAIN handle=11 level=error\n")) << output();
    EXPECT_EQ(output().find("OTHR handle=9 level=error"), std::string::npos);
    EXPECT_NE(output().find("-- set-level  LVL AUX handle=10 level=verbose\n"), std::string::npos);
    app.close();
}

TEST_F(Monitor, SayReachesEveryApplicationOnceAttached)
{
    start_monitor({"--say", "first line", "--say", ""});
    Test_application one(unique_id("one", 20));
    Test_application two(unique_id("two", 20));
    ASSERT_TRUE(one.announce());
    ASSERT_TRUE(two.announce());
    ASSERT_TRUE(one.wait_attached());
    ASSERT_TRUE(two.wait_attached());
    for (Test_application* app : {&one, &two}) {
        const std::string first = "first line\n";
        EXPECT_EQ(app->receive(), Bytes(first.begin(), first.end()));
        EXPECT_EQ(app->receive(), Bytes{'\n'});
        EXPECT_TRUE(app->receive(milliseconds(300)).empty());  // once only
    }
    one.close();
    two.close();
}

TEST_F(Monitor, KilledApplicationIsDetached)
{
    start_monitor();
    const std::string identifier = unique_id("", 20);
    const std::string channel = channel_name(identifier);
    segments_.push_back(channel);  // a killed application leaves its segment behind
    const int child = fork_application(
        identifier, "KILL", [](Test_application& app) { app.log(info_text(1, "before kill")); },
        [](Test_application& app) {  // alive and stamping until killed
            app.stamp();
            ::usleep(100 * 1000);
        });
    ASSERT_GT(child, 0);
    ASSERT_TRUE(wait_for("KILL CTX  info    \"before kill\"")) << output();

    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    const auto killed = std::chrono::steady_clock::now();
    EXPECT_TRUE(wait_for("-- detach     KILL " + channel + " (no sign of life for ", milliseconds(12000))) << output();
    // Whole seconds: more than five between its last stamp and the clock.
    EXPECT_GE(std::chrono::steady_clock::now() - killed, milliseconds(4000));

    // The monitor keeps serving: a new application is attached after the detach.
    Test_application next(unique_id("next", 20));
    EXPECT_TRUE(attach(next));
    next.close();
    EXPECT_EQ(stop_monitor(), 0);
    // The application owned its segment; the monitor leaves it where it is.
    EXPECT_TRUE(shm_exists(channel));
}

TEST_F(Monitor, LiveApplicationStaysAttachedBeyondTheSilenceLimit)
{
    start_monitor();
    Test_application app;
    ASSERT_TRUE(attach_registered(app, "LIVE", {}));
    const auto until = std::chrono::steady_clock::now() + milliseconds(7000);
    while (std::chrono::steady_clock::now() < until) {
        app.stamp();
        ASSERT_EQ(output().find("-- detach"), std::string::npos);
        ::usleep(100 * 1000);
    }
    app.close();
    EXPECT_TRUE(wait_for("-- detach     LIVE " + app.name() + " (closed its channel)")) << output();
}

TEST_F(Monitor, ServesManyApplicationsAtOnce)
{
    start_monitor();
    constexpr int applications = 4;
    constexpr int messages = 600;
    std::vector<int> children;
    for (int a = 0; a < applications; ++a) {
        const std::string identifier = unique_id("a" + std::to_string(a), 20);
        children.push_back(fork_child([identifier, a] {
            Test_application app(identifier);
            const std::string index = std::to_string(a);
            const std::uint32_t handle = static_cast<std::uint32_t>(100 + a);
            if (!app.announce() || !app.wait_attached() ||
                !app.register_as("AP" + index, "", {{4, handle, "C" + index, ""}})) {
                return 1;
            }
            // Everything is written while ordinary traffic is still held back, then
            // released and the channel closed at once: the monitor finds the application
            // gone with the whole backlog still to read.
            for (int m = 0; m < messages; ++m) {
                const std::uint32_t key = static_cast<std::uint32_t>(m);
                if (!app.log(bytes_of(start(key, 4, handle), int32(key, m),
                                      make_text(key, std::string(40, static_cast<char>('a' + a))), make_finish(key)))) {
                    return 2;
                }
                if (m % 20 == 0) {
                    app.stamp();
                }
            }
            app.release();
            app.close();
            return 0;
        }));
    }
    for (const int child : children) {
        const int status = wait_child(child, milliseconds(30000));
        ASSERT_TRUE(WIFEXITED(status)) << status;
        EXPECT_EQ(WEXITSTATUS(status), 0);
    }
    ASSERT_TRUE(wait_until([&] { return count_of(output(), "-- detach") == static_cast<std::size_t>(applications); },
                           milliseconds(15000)))
        << output();
    EXPECT_EQ(stop_monitor(), 0);

    // Every line is whole, and each application's messages come in order.
    const std::regex log_line("^ *[0-9]+\\.[0-9]{4} AP([0-9])  C([0-9])   info    (-?[0-9]+) \"([a-z]+)\"$");
    std::vector<int> next(applications, 0);
    for (const std::string& line : split_lines(output())) {
        if (line.rfind("-- ", 0) == 0) {
            continue;
        }
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, log_line)) << line;
        const int a = std::stoi(match[1]);
        ASSERT_LT(a, applications);
        EXPECT_EQ(std::stoi(match[2]), a);
        EXPECT_EQ(std::stoi(match[3]), next[a]) << line;
        EXPECT_EQ(match[4].str(), std::string(40, static_cast<char>('a' + a)));
        ++next[a];
    }
    for (int a = 0; a < applications; ++a) {
        EXPECT_EQ(next[a], messages) << "application " << a;
    }
    EXPECT_NE(output().find("-- stopped    signal: " + std::to_string(applications * messages) + " log messages from " +
                            std::to_string(applications) + " applications"),
              std::string::npos);
}

TEST_F(Monitor, HeldBackMessagesWaitWhileTheApplicationLives)
{
    start_monitor();
    Test_application app;
    ASSERT_TRUE(attach_registered(app, "GATE", {{4, 1, "C", ""}}));
    ASSERT_TRUE(app.log(info_text(1, "held back")));
    // Two control requests, one after the other: once the second one is printed, the
    // monitor has been through the ring at least once since the message went in.
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_enable_local_print())));
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_disable_remote())));
    ASSERT_TRUE(wait_for("-- control    GATE disable-remote\n")) << output();
    EXPECT_EQ(output().find("held back"), std::string::npos) << output();

    app.release();
    EXPECT_TRUE(wait_for("GATE C    info    \"held back\"\n")) << output();
    app.close();
}

// A registration that reaches the priority area while the monitor is already on its way
// from that area to the ring is still printed before the message that the ring, opened
// right after the registration, then gives.
TEST_F(Monitor, RegistrationPlacedAsTheRingOpensComesBeforeTheMessage)
{
    start_monitor();
    Test_application app;
    ASSERT_TRUE(attach_registered(app, "RACE", {}));
    ASSERT_TRUE(app.log(info_text(1, "after the context")));  // held back

    // The monitor looked at the priority area (empty) and now waits for the ring's mutex.
    pthread_mutex_t* const ring = app.ring_mutex();
    ASSERT_EQ(::pthread_mutex_lock(ring), 0);
    const bool waiting = wait_until([&] {
        app.stamp();
        return app.ring_has_waiters();
    });
    if (waiting) {
        EXPECT_TRUE(app.place_priority(bytes_of(Logferry_register_context(4, 1, "C", ""))));
        app.release();
    }
    ASSERT_EQ(::pthread_mutex_unlock(ring), 0);
    ASSERT_TRUE(waiting) << "the monitor never waited for the ring";

    ASSERT_TRUE(wait_for("\"after the context\"\n")) << output();
    const std::string text = mask_timestamps(output());
    EXPECT_NE(text.find("-- context    RACE C handle=1 level=info \"\"\n"
                        "<ts> RACE C    info    \"after the context\"\n"),
              std::string::npos)
        << text;
    app.close();
}

TEST_F(Monitor, HeldBackMessagesOfAClosedApplicationAreRead)
{
    // An application that ends before its ring was released: once it has closed its
    // channel, nothing more is to come ahead of those messages.
    start_monitor();
    Test_application app;
    ASSERT_TRUE(attach_registered(app, "LATE", {{4, 1, "C", ""}}));
    ASSERT_TRUE(app.log(info_text(1, "first")));
    ASSERT_TRUE(app.log(info_text(2, "last")));
    app.close();
    ASSERT_TRUE(wait_for("-- detach")) << output();
    EXPECT_NE(mask_timestamps(output()).find("<ts> LATE C    info    \"first\"\n"
                                             "<ts> LATE C    info    \"last\"\n"
                                             "-- detach     LATE " +
                                             app.name() + " (closed its channel)\n"),
              std::string::npos)
        << output();
}

TEST_F(Monitor, CountStopsAfterThatManyMessages)
{
    // Three messages are sent; the monitor prints `count` of them and stops.
    const auto run = [&](int count, const std::string& printed, const std::string& stopped) {
        SCOPED_TRACE("--count " + std::to_string(count));
        start_monitor({"--count", std::to_string(count)});
        Test_application app(unique_id("", 18) + std::to_string(count));
        ASSERT_TRUE(attach_registered(app, "CNT", {{4, 1, "C", ""}}));
        app.release();
        for (std::int32_t key = 0; key < 3; ++key) {
            ASSERT_TRUE(app.log(info_int32(static_cast<std::uint32_t>(key), key)));
        }
        EXPECT_EQ(monitor_exit_code(), 0);
        const std::string text = mask_timestamps(output());
        EXPECT_NE(text.find(printed + stopped), std::string::npos) << text;
        EXPECT_EQ(text.find("info    " + std::to_string(count)), std::string::npos) << text;
        EXPECT_FALSE(shm_exists(LISTENER_SEGMENT));
        EXPECT_NE(::access(lock_file_.c_str(), F_OK), 0);
        app.close();
    };
    run(2, "<ts> CNT  C    info    0\n<ts> CNT  C    info    1\n",
        "-- stopped    count: 2 log messages from 1 application\n");
    run(1, "<ts> CNT  C    info    0\n", "-- stopped    count: 1 log message from 1 application\n");
}

TEST_F(Monitor, DurationStopsByItself)
{
    const auto began = std::chrono::steady_clock::now();
    start_monitor({"--duration", "0.5"});
    EXPECT_EQ(monitor_exit_code(), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - began, milliseconds(500));
    EXPECT_NE(output().find("-- stopped    duration: 0 log messages from 0 applications\n"), std::string::npos);
    EXPECT_NE(::access(lock_file_.c_str(), F_OK), 0);
}

TEST_F(Monitor, SigintAndSigtermRemoveTheListenerSegmentAndTheLockFile)
{
    for (const int signal : {SIGINT, SIGTERM}) {
        start_monitor();
        EXPECT_TRUE(shm_exists(LISTENER_SEGMENT));
        EXPECT_EQ(::access(lock_file_.c_str(), F_OK), 0);
        const int status = stop_monitor(signal);
        ASSERT_TRUE(WIFEXITED(status)) << signal;
        EXPECT_EQ(WEXITSTATUS(status), 0);
        EXPECT_FALSE(shm_exists(LISTENER_SEGMENT));
        EXPECT_NE(::access(lock_file_.c_str(), F_OK), 0);
        EXPECT_NE(output().find("-- stopped    signal: 0 log messages from 0 applications\n"), std::string::npos);
    }
}

TEST_F(Monitor, StoppingTellsAttachedApplications)
{
    start_monitor();
    Test_application app;
    ASSERT_TRUE(app.announce());
    ASSERT_TRUE(app.wait_attached());
    EXPECT_TRUE(app.connected());
    EXPECT_EQ(stop_monitor(), 0);
    // The monitor's end cleared its watchdog on the way out: the daemon is seen gone at
    // once, and the application's segment is left to the application.
    EXPECT_FALSE(app.connected());
    EXPECT_TRUE(shm_exists(app.name()));
    app.close();
    EXPECT_FALSE(shm_exists(app.name()));
}

TEST_F(Monitor, SecondMonitorIsRefusedWhileOneRuns)
{
    start_monitor();
    second_pid_ = launch({}, out_ + "2", err_ + "2");
    const int status = wait_child(second_pid_, milliseconds(10000));
    second_pid_ = -1;
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_EQ(read_text(err_ + "2"), "logferry-monitor: another daemon holds " + lock_file_ + "\n");
    // The first one is unharmed.
    EXPECT_TRUE(shm_exists(LISTENER_SEGMENT));
    EXPECT_EQ(stop_monitor(), 0);
}

TEST_F(Monitor, UndecodableUnitsAreReportedAndServiceGoesOn)
{
    start_monitor();
    Test_application app;
    ASSERT_TRUE(attach_registered(app, "BAD", {{4, 1, "C", ""}}));
    app.release();
    ASSERT_TRUE(app.log(Bytes{12, 1, 0}));
    ASSERT_TRUE(app.log(bytes_of(start(1, 4, 1), int32(2, 5), make_finish(1))));
    ASSERT_TRUE(app.log(info_int32(3, 5)));
    ASSERT_TRUE(wait_for("C    info    5")) << output();
    const std::string text = output();
    EXPECT_NE(text.find("-- error      BAD ring: truncated at offset 0 (kind 12): write_int32 needs 9 bytes, 3 left "
                        "[3 bytes: 0c 01 00]\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("-- error      BAD ring: stream-key-mismatch at offset 14 (kind 12)"), std::string::npos)
        << text;
    app.close();
}

// ---- Real programs under the monitor ------------------------------------------------------

// What the example prints and logs, with the channel of each copy as "<channel>" and the
// timestamps masked.
const char* const EXAMPLE_CHANNEL = "/logferry-EXA-[0-9]{1,5}-[0-9a-f]+";
const std::vector<std::string> EXAMPLE_LINES = {
    "-- attach     <channel>",
    "-- say        <channel> \"hello from the monitor\"",
    "-- app        EXA \"logferry example application\" channel=<channel>",
    "-- control    EXA enable-local-print",
    "-- context    EXA MAIN handle=4294967295 level=info \"Main context\"",
    "-- set-level  EXA MAIN handle=4294967295 level=debug",
    "-- context    EXA NET handle=4294967294 level=warn \"Network context\"",
    "-- context    EXA LOWL handle=1 level=info \"Free-function context\"",
    "<ts> EXA  LOWL info    \"from the free functions:\" encoded[01 02 03]",
    "<ts> EXA  MAIN info    \"every argument type:\" true -8 -1600 -320000 -6400000000 200 0xbeef 0755 "
    "0b1011010 1.5 3.141592653589793 \"a view of\" [de ad be ef]",
    "<ts> EXA  MAIN debug   \"debug is on\"",
    "<ts> EXA  NET  warn    \"link down, retrying\" 3",
    "-- detach     EXA <channel> (closed its channel)"};
const std::vector<std::string> EXAMPLE_OPTIONS = {"--level", "MAIN=debug", "--say", "hello from the monitor"};

// The example application on the real front end, under the monitor.
TEST_F(Monitor, ExampleApplicationUnderTheMonitor)
{
    const Monitor_run run = monitor_run(EXAMPLE_OPTIONS, LOGFERRY_EXAMPLE_PATH);

    // The example prints the level before and after the update, and the monitor's text.
    const std::string& printed = run.application.out;
    EXPECT_NE(printed.find("example: debug for MAIN before the level update: disabled\n"), std::string::npos)
        << printed;
    EXPECT_NE(printed.find("example: debug for MAIN after the level update: enabled\n"), std::string::npos) << printed;
    EXPECT_NE(printed.find("hello from the monitor\n"), std::string::npos) << printed;
    EXPECT_NE(printed.find("example: done\n"), std::string::npos) << printed;

    std::smatch match;
    ASSERT_TRUE(std::regex_search(run.transcript, match, std::regex(EXAMPLE_CHANNEL))) << run.transcript;
    const std::string channel = match.str();
    std::string expected = "-- listening  lock=" + lock_file_ + "\n";
    for (const std::string& line : EXAMPLE_LINES) {
        expected += std::regex_replace(line, std::regex("<channel>"), channel) + "\n";
    }
    expected += "-- stopped    signal: 4 log messages from 1 application\n";
    EXPECT_EQ(mask_timestamps(run.transcript), expected);
    EXPECT_FALSE(shm_exists(channel));
}

// Two copies of the example at once: every line of each appears, whole, exactly once per
// copy, and the monitor counts both.
TEST_F(Monitor, TwoExampleApplicationsAtOnce)
{
    start_monitor(EXAMPLE_OPTIONS);
    const int examples[2] = {start_program(LOGFERRY_EXAMPLE_PATH, "example0"),
                             start_program(LOGFERRY_EXAMPLE_PATH, "example1")};
    for (int i = 0; i < 2; ++i) {
        const Program_run example = finish_program(examples[i], "example" + std::to_string(i));
        ASSERT_TRUE(exited_cleanly(example.status)) << example.status;
        EXPECT_NE(example.out.find("example: debug for MAIN after the level update: enabled\n"), std::string::npos)
            << example.out;
    }
    ASSERT_TRUE(wait_until([&] { return count_of(output(), "-- detach") >= 2; })) << output();
    EXPECT_EQ(stop_monitor(), 0);

    std::multiset<std::string> lines;
    for (const std::string& line : split_lines(mask_timestamps(output()))) {
        lines.insert(std::regex_replace(line, std::regex(EXAMPLE_CHANNEL), "<channel>"));
    }
    std::multiset<std::string> expected = {"-- listening  lock=" + lock_file_,
                                           "-- stopped    signal: 8 log messages from 2 applications"};
    for (int copy = 0; copy < 2; ++copy) {
        expected.insert(EXAMPLE_LINES.begin(), EXAMPLE_LINES.end());
    }
    EXPECT_EQ(lines, expected) << output();
    EXPECT_EQ(errors(), "");
}

// The ara::log compatibility applications, each under a monitor of its own; the transcript
// with times and channel names masked.
class Ara_compat : public Monitor {
protected:
    void SetUp() override
    {
#ifdef LOGFERRY_STATIC_TEST_PROGRAMS
        GTEST_SKIP() << "the applications are linked statically here: an ara::log application that logs from its "
                        "static objects needs the shared libraries' load order";
#endif
        Monitor::SetUp();
    }

    std::string run_application(const std::string& name, const Environment& environment)
    {
        const Monitor_run run =
            monitor_run({}, std::string(LOGFERRY_ARA_COMPAT_DIR) + "/ara_compat_" + name, environment);
        return std::regex_replace(mask_timestamps(run.transcript),
                                  std::regex("/logferry-CMP[0-9]-[0-9]{1,5}-[0-9a-f]+"), "<channel>");
    }
};

TEST_F(Ara_compat, InitLoggingApplicationWithMemberLoggersAndWrappers)
{
    const std::string transcript = run_application("sensor_service", {});
    EXPECT_EQ(transcript, "-- listening  lock=" + lock_file_ +
                              "\n"
                              "-- attach     <channel>\n"
                              "-- app        CMP1 \"compat: InitLogging application\" channel=<channel>\n"
                              "-- control    CMP1 enable-local-print\n"
                              "-- context    CMP1 MAIN handle=4294967295 level=info \"Main context\"\n"
                              "-- context    CMP1 SENS handle=4294967294 level=info \"Sensor service\"\n"
                              "<ts> CMP1 SENS info    \"temperature\" \"=\" 21.5\n"
                              "<ts> CMP1 SENS info    \"pressure\" \"=\" 1013.25\n"
                              "<ts> CMP1 MAIN warn    \"readings reported:\" 2\n"
                              "<ts> CMP1 MAIN info    \"part one\"\n"
                              "<ts> CMP1 MAIN info    \"part two\" \"moved on\"\n"
                              "-- detach     CMP1 <channel> (closed its channel)\n"
                              "-- stopped    signal: 5 log messages from 1 application\n");
}

TEST_F(Ara_compat, ApplicationWithoutInitLoggingTakesItsIdentityFromTheEnvironment)
{
    const std::string transcript =
        run_application("late_release_app", {{"LOGFERRY_APP_ID", "CMP2"}, {"LOGFERRY_LOG_LEVEL", "info"}});
    EXPECT_EQ(transcript, "-- listening  lock=" + lock_file_ +
                              "\n"
                              "-- attach     <channel>\n"
                              "-- app        CMP2 \"application CMP2\" channel=<channel>\n"
                              "-- context    CMP2 GLOB handle=4294967295 level=info \"Global logger\"\n"
                              "-- context    CMP2 WORK handle=4294967294 level=debug \"Worker\"\n"
                              "<ts> CMP2 GLOB info    \"starting\"\n"
                              "<ts> CMP2 GLOB info    \"handler saw the daemon:\" true\n"
                              "<ts> CMP2 WORK debug   \"took\" 250 \"ms\" \"retries\" 3 \"flags\" 0x2a\n"
                              "<ts> CMP2 GLOB warn    \"static destructor after main\"\n"
                              "-- detach     CMP2 <channel> (closed its channel)\n"
                              "-- stopped    signal: 4 log messages from 1 application\n");
}

// An application that keeps logging while the monitor is stopped and started again: the
// new monitor gets the registrations replayed, then every message, none lost across the
// restart.
TEST_F(Monitor, RestartedMonitorGetsTheRegistrationsReplayedAndEveryMessage)
{
    start_monitor();
    const std::string stop_file = file("stop");
    const int application = fork_child([&] {
        // The library fixed its lock-file path when it was loaded, before this test set the
        // run-state directory.
        logferry::listener.lock_listener_name = lock_file_;
        logferry::set_app_identifier("RST");
        logferry::init();
        if (!logferry::register_app("RST", "keeps logging") || !logferry::register_context(1, "LOOP", "loop", 4)) {
            return 2;
        }
        for (std::int32_t n = 0; n < 3000 && !path_exists(stop_file); ++n) {
            logferry::log_start(1, 7, 4);
            logferry::log_int32(7, n);
            logferry::log_finish(7);
            ::usleep(10000);
        }
        logferry::exit();
        return 0;
    });
    ASSERT_GT(application, 0);
    ASSERT_TRUE(wait_for("LOOP info    5\n")) << output();
    EXPECT_EQ(stop_monitor(), 0);
    const std::string first_run = output();  // all of it: the monitor printed on until it stopped

    start_monitor();
    ASSERT_TRUE(wait_for("-- app        RST \"keeps logging\"")) << output();
    ASSERT_TRUE(wait_for("-- context    RST LOOP handle=1 level=info \"loop\"")) << output();
    // Messages flow again: wait for a number logged well after the restart.
    const auto numbers_in = [](const std::string& text) {
        std::vector<int> numbers;
        const std::regex message("RST  LOOP info    ([0-9]+)");
        for (auto it = std::sregex_iterator(text.begin(), text.end(), message); it != std::sregex_iterator(); ++it) {
            numbers.push_back(std::stoi((*it)[1]));
        }
        return numbers;
    };
    const std::vector<int> before = numbers_in(first_run);
    ASSERT_FALSE(before.empty());
    ASSERT_TRUE(wait_until(
        [&] {
            const std::vector<int> after = numbers_in(output());
            return !after.empty() && after.back() >= before.back() + 50;
        },
        milliseconds(20000)))
        << output();
    std::ofstream(stop_file) << "stop";
    const int status = wait_child(application, milliseconds(10000));
    ASSERT_TRUE(exited_cleanly(status)) << status;
    ASSERT_TRUE(wait_for("-- detach")) << output();
    EXPECT_EQ(stop_monitor(), 0);

    // The registrations came before any message of the second run, and the numbers of
    // both runs together are every number from 0 on, in order, each once.
    const std::string second_run = output();
    EXPECT_LT(second_run.find("-- context    RST LOOP"), second_run.find("RST  LOOP info"));
    std::vector<int> all = numbers_in(first_run);
    const std::vector<int> after = numbers_in(second_run);
    all.insert(all.end(), after.begin(), after.end());
    for (std::size_t i = 0; i < all.size(); ++i) {
        ASSERT_EQ(all[i], static_cast<int>(i)) << "message " << i << " of " << all.size();
    }
}

TEST_F(Monitor, UsageErrorsAndHelp)
{
    // Refused command lines end the monitor with status 2; these say why.
    const std::vector<std::pair<std::vector<std::string>, std::string>> explained = {
        {{"--level", "MAIN"}, "--level wants CTX=LEVEL"},
        {{"--frobnicate"}, "unknown option --frobnicate"},
        {{"--dlt-port", "65536"}, "--dlt-port wants a port number (0 to 65535), not 65536"},
        {{"--dlt-file-limit", "0"}, "--dlt-file-limit wants a positive number of bytes, not 0"},
        {{"--ecu", "ECU12"}, "--ecu wants an ID of 1 to 4 characters, not ECU12"},
        {{"--dlt-max-clients", "0"}, "--dlt-max-clients wants a number from 1 to 65536, not 0"},
    };
    const std::vector<std::vector<std::string>> refused = {{"--level", "MAIN=loud"},
                                                           {"--level", "TOOLONG=info"},
                                                           {"--level", "M=7"},
                                                           {"--count", "0"},
                                                           {"--count", "-1"},
                                                           {"--duration", "soon"},
                                                           {"--say"},
                                                           {"--dlt-port", "http"},
                                                           {"--ecu", ""},
                                                           {"--dlt-file", ""},
                                                           {"--app-file-dir", ""},
                                                           {"--dlt-max-clients", "65537"}};
    EXPECT_EQ(run_monitor_to_end({"--help"}), 0);
    EXPECT_EQ(output().rfind("usage: logferry-monitor", 0), 0U);
    for (const auto& command : explained) {
        EXPECT_EQ(run_monitor_to_end(command.first), 2) << command.first[0];
        EXPECT_NE(errors().find(command.second), std::string::npos) << errors();
    }
    for (const std::vector<std::string>& command : refused) {
        EXPECT_EQ(run_monitor_to_end(command), 2) << command[0] << " " << command.back();
    }
    EXPECT_EQ(run_monitor_to_end({"--help"}), 0);
    for (const char* option : {"--quiet", "--dlt-file PATH", "--dlt-file-limit BYTES", "--dlt-port PORT",
                               "--dlt-bind ADDR", "--dlt-max-clients N", "--ecu ID", "--app-file-dir DIR"}) {
        EXPECT_NE(output().find(option), std::string::npos) << option;
    }
    EXPECT_NE(::access(lock_file_.c_str(), F_OK), 0);  // none of them took the listener role
}

}  // namespace
