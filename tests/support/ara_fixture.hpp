#ifndef LOGFERRY_TEST_ARA_FIXTURE_HPP
#define LOGFERRY_TEST_ARA_FIXTURE_HPP
// The set-up of the ara::log front end's tests (header only: only they link the front end).

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ara/log/logging.h"
#include "ara_log/staging.hpp"
#include "logferry/client.hpp"
#include "support/client_fixture.hpp"
#include "support/fake_system.hpp"
#include "wire/wire.hpp"

namespace logferry_test {

// Fields of a message's records.
inline std::uint32_t read_u32(const Bytes& bytes, std::size_t at) { return logferry::wire::get_u32(bytes.data() + at); }
inline std::uint32_t key_of(const Bytes& message) { return read_u32(message, logferry::wire::start::KEY_AT); }
inline std::uint32_t handle_of(const Bytes& message) { return read_u32(message, logferry::wire::start::HANDLE_AT); }
inline std::uint32_t timestamp_of(const Bytes& message)
{
    return read_u32(message, logferry::wire::start::TIMESTAMP_AT);
}
// The text of a text record.
inline std::string text_of(const Bytes& record)
{
    return std::string(reinterpret_cast<const char*>(record.data()) + logferry::wire::text::TEXT_AT);
}

// A channel without receiver thread on the fake clock; the application is brought up with
// InitLogging (the library is already initialised, so no receiver thread starts) and the
// daemon's end is attached.
class AraLog : public Client_test {
protected:
    static constexpr unsigned int HAND_OVER_WAIT_MS = 10000;

    void SetUp() override
    {
        Client_test::SetUp();
        scoped_ = std::make_unique<Scoped_system>(&fake_);
        fake_.set_time(12, 345678901);
        open_without_receiver();
    }

    void TearDown() override
    {
        daemon_.reset();
        ara::log::detail::stop_flusher();  // as the take-down does, before the channel closes
        Client_test::TearDown();
        scoped_.reset();
    }

    void init_logging(ara::log::LogMode mode = ara::log::LogMode::kRemote)
    {
        ara::log::InitLogging("APP1", "ara application", ara::log::LogLevel::kWarn, mode);
    }

    // The application brought up, its context CTXA at info, and the daemon's end attached.
    const ara::log::Logger& attached_logger()
    {
        init_logging();
        const ara::log::Logger& logger = ara::log::CreateLogger("CTXA", "context A", ara::log::LogLevel::kInfo);
        attach();
        return logger;
    }

    void attach()
    {
        daemon_ = std::make_unique<Daemon_end>();
        ASSERT_TRUE(daemon_->attached);
        daemon_->drain();
    }

    // Opens the gate, waits until the flusher has handed every staged message to the ring,
    // and takes them out.
    std::vector<Bytes> messages()
    {
        logferry::client.unlock_client_buffer();
        EXPECT_TRUE(ara::log::detail::wait_until_handed_over(HAND_OVER_WAIT_MS));
        return daemon_->drain();
    }

    Bytes only_message()
    {
        auto all = messages();
        EXPECT_EQ(all.size(), 1u);
        return all.empty() ? Bytes() : all[0];
    }

    // The message the free functions send for the same handle, key and level.
    template <typename Arguments>
    Bytes free_function_message(const Bytes& reference, std::uint8_t level, Arguments arguments)
    {
        const std::uint32_t key = key_of(reference);
        EXPECT_TRUE(logferry::log_start(handle_of(reference), key, level));
        arguments(key);
        logferry::log_finish(key);
        return only_message();
    }

    Fake_system fake_;
    std::unique_ptr<Scoped_system> scoped_;
    std::unique_ptr<Daemon_end> daemon_;
};

}  // namespace logferry_test

#endif
