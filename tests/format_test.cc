#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <string>

#include "platform/log/Failure.h"
#include "platform/log/Format.h"
#include "platform/log/Log.h"
#include "platform/value/Error.h"

namespace {

using namespace platform;

TEST(Formatting, PrintsEveryConversionOfOurMessages) {
  EXPECT_EQ(format("client %d %s", 42, "/usr/bin/host"), "client 42 /usr/bin/host");
  EXPECT_EQ(format("client %d used %u requests so far", -1, 4000000000u),
            "client -1 used 4000000000 requests so far");
  EXPECT_EQ(format("INSTALLED:%@ %@(%@)", String("a"), std::string("b"), std::string_view("c")),
            "INSTALLED:a b(c)");
  EXPECT_EQ(format("error %@", Error{"Ambrel", 4, "no"}), "error Ambrel 4 \"no\"");
  EXPECT_EQ(format("100%% of %@", Value(7)), "100% of 7");
  EXPECT_EQ(format("nothing"), "nothing");
}

TEST(Formatting, NoneIsNullWhateverItIsNoneOf) {
  EXPECT_EQ(format("%@", std::optional<std::string>()), "(null)");
  EXPECT_EQ(format("%@", std::optional<UUID>()), "(null)");
  EXPECT_EQ(format("%@", std::shared_ptr<Error>()), "(null)");
  const char* missing = nullptr;
  EXPECT_EQ(format("%s|%@", missing, missing), "(null)|(null)");
}

TEST(Formatting, TheArgumentsTypeDecidesItsSizeAndSign) {
  EXPECT_EQ(format("%lx %x", uint64_t{0xFFFFFFFFFFFFFFFF}, 255), "ffffffffffffffff ff");
  EXPECT_EQ(format("%d", std::numeric_limits<int64_t>::min()), "-9223372036854775808");
  EXPECT_EQ(format("%d", std::numeric_limits<uint64_t>::max()), "18446744073709551615");
  // As printf(3) would with the argument that it expects.
  EXPECT_EQ(format("%x %u", -1, int8_t{-1}), "ffffffff 255");
  EXPECT_EQ(format("%lld", int16_t{-3}), "-3");
  EXPECT_EQ(format("%d", true), "1");
}

TEST(Formatting, WidthsPrecisionsAndFlagsAreThoseOfPrintf) {
  EXPECT_EQ(format("[%5d|%-5d|%05d|%+d]", 42, 42, -42, 42), "[   42|42   |-0042|+42]");
  EXPECT_EQ(format("[%.3s|%6s|%-6s|%5.2s|%.0s]", "abcdef", "ab", "ab", "abc", "x"),
            "[abc|    ab|ab    |   ab|]");
  EXPECT_EQ(format("%#x %08.3f", 255, 3.14159), "0xff 0003.142");
  EXPECT_EQ(format("[%4@]", String("x")), "[   x]");
}

TEST(Formatting, ArgumentsAreNeverReadAsFormats) {
  EXPECT_EQ(format("%@ %s", String("%@ %d"), "%s%n%"), "%@ %d %s%n%");
  EXPECT_EQ(format("%@", std::string(5000, '%')), std::string(5000, '%'));
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

TEST(SystemLog, ABrokenInvariantIsLoggedBeforeTheProcessEnds) {
  setenv("ABD_LOG", "stderr", 1);
  EXPECT_DEATH(
      {
        installTerminateHandler();
        [&]() noexcept { raiseInternalInconsistency("unable to locate user directory: errno %d", 2); }();
      },
      "unable to locate user directory: errno 2");
  EXPECT_DEATH(
      {
        installTerminateHandler();
        [&]() noexcept { assertionFailure("a container is an application", "findPlugIns:", "abd/x", 171); }();
      },
      "assertion failure: \"a container is an application\" in findPlugIns:, abd/x:171");
}

}  // namespace
