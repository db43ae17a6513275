#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <string>

#include "platform/log/Failure.h"
#include "platform/log/Format.h"
#include "platform/log/Log.h"
#include "platform/log/LogRates.h"
#include "platform/value/Error.h"

namespace {

using namespace platform;

// The messages themselves stand in the tests of what logs them.
TEST(Formatting, TheArgumentsTypeDecidesItsSizeAndSign) {
  EXPECT_EQ(format("%lx %x", uint64_t{0xFFFFFFFFFFFFFFFF}, 255), "ffffffffffffffff ff");
  EXPECT_EQ(format("%d %u", std::numeric_limits<int64_t>::min(), 4000000000u),
            "-9223372036854775808 4000000000");
  EXPECT_EQ(format("%d", std::numeric_limits<uint64_t>::max()), "18446744073709551615");
  EXPECT_EQ(format("%x %u", -1, int8_t{-1}), "ffffffff 255") << "as printf(3) with what it expects";
  const char* missing = nullptr;
  EXPECT_EQ(format("%s|%@|%@", missing, std::optional<UUID>(), std::shared_ptr<Error>()),
            "(null)|(null)|(null)");
  EXPECT_EQ(format("[%-4d|%04d|%.2s|%5@]", 1, -2, "abc", String("x")), "[1   |-002|ab|    x]");
}

// A format that is not a literal is outside the compiler's check.
TEST(Formatting, AFormatThatDoesNotFitIsPrintedWithoutHarm) {
  const FormatArgument arguments[] = {FormatArgument(1), FormatArgument("two")};
  EXPECT_EQ(formatArguments("%s %d %@", arguments), "(?) (?) (?)");
  EXPECT_EQ(formatArguments("%d %", arguments), "1 (?)");
}

TEST(SystemLog, OneEntryIsOneLineWithTheProcessInFront) {
  setenv("ABD_LOG", "stderr", 1);
  testing::internal::CaptureStderr();
  systemLog("first %@", String("a\nb\tc\rd\x1b[31m\x7f"));
  systemLog("second \xC2\23331m gr\xC3\xBC\xC3\x9F");
  writeLogEntry(std::string_view("nul\0end %d", 10));
  const std::string text = testing::internal::GetCapturedStderr();
  const std::string prefix =
      format("%s[%d]: ", static_cast<const char*>(program_invocation_short_name), getpid());
  EXPECT_EQ(text, prefix + "first a\\nb\\tc\\x0dd\\x1b[31m\\x7f\n" + prefix +
                      "second \\x9b31m gr\xC3\xBC\xC3\x9F\n" + prefix + "nul\\x00end %d\n");
}

TEST(SystemLog, LeavesOutWhatComesTooOftenAndSaysHowMuch) {
  LogRates rates;
  using Verdict = LogRates::Verdict;
  const auto begin = LogRates::Clock::now();
  const auto after = [&](int milliseconds) { return begin + std::chrono::milliseconds(milliseconds); };
  for (size_t i = 0; i < kLogBurst; ++i) ASSERT_EQ(rates.admit("a%d", begin), Verdict::written);
  EXPECT_EQ(rates.admit("a%d", begin), Verdict::firstLeftOut);
  EXPECT_EQ(rates.admit("b", begin), Verdict::written) << "each text has its own measure";
  EXPECT_EQ(rates.admit("a%d", after(990)), Verdict::leftOut);
  EXPECT_TRUE(rates.takeLeftOut(after(990)).empty());
  const auto told = rates.takeLeftOut(after(1000));
  ASSERT_EQ(told.size(), 1u);
  EXPECT_EQ(told[0].text, "a%d");
  EXPECT_EQ(told[0].count, 2u);
  EXPECT_FALSE(rates.isLeavingOut());
  for (size_t i = 0; i < kLogRate; ++i) ASSERT_EQ(rates.admit("a%d", after(1000)), Verdict::written);
  EXPECT_EQ(rates.admit("a%d", after(1000)), Verdict::firstLeftOut);
  rates.charge("b", kLogBurst);
  EXPECT_EQ(rates.admit("b", begin), Verdict::leftOut) << "a long entry counts for many";
}

TEST(SystemLog, FormatsNothingOfWhatIsLeftOut) {
  setenv("ABD_LOG", "stderr", 1);
  struct Counted {
    size_t& count;
    std::string description() const { return std::to_string(++count); }
  };
  size_t count = 0;
  testing::internal::CaptureStderr();
  for (size_t i = 0; i < 3 * kLogBurst; ++i) systemLog("too often %@", Counted{count});
  const std::string text = testing::internal::GetCapturedStderr();
  EXPECT_GE(count, kLogBurst);
  EXPECT_LT(count, 2 * kLogBurst);
  EXPECT_EQ(static_cast<size_t>(std::ranges::count(text, '\n')), count);
}

TEST(SystemLog, ABrokenInvariantIsLoggedBeforeTheProcessEnds) {
  setenv("ABD_LOG", "stderr", 1);
  EXPECT_DEATH(
      {
        installTerminateHandler();
        [&]() noexcept { assertionFailure("a container is an application", "findPlugIns:", "abd/x", 171); }();
      },
      "assertion failure: \"a container is an application\" in findPlugIns:, abd/x:171");
}

}  // namespace
