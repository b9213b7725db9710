#include "kit/wire/WireWriter.hpp"

#include <gtest/gtest.h>

#include "kit/wire/FrameReader.hpp"
#include "kit/wire/WireError.hpp"
#include "tests/kit/wire/WireTestSupport.hpp"

namespace kelvaron {
namespace {

Data written(auto&& write) {
  Data out;
  WireWriter w(out);
  write(w);
  return out;
}

TEST(WireWriter, PrimitivesAreBigEndianWithoutPadding) {
  EXPECT_EQ(written([](WireWriter& w) { w.u16(0x0102); }), (Data{1, 2}));
  EXPECT_EQ(written([](WireWriter& w) { w.u64(0x0102030405060708); }),
            (Data{1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(written([](WireWriter& w) { w.i32(-2); }), (Data{0xff, 0xff, 0xff, 0xfe}));
  EXPECT_EQ(written([](WireWriter& w) { w.f32(1.0f); }), (Data{0x3f, 0x80, 0, 0}));
  EXPECT_EQ(written([](WireWriter& w) { w.string("ab"); }), (Data{0, 2, 'a', 'b'}));
  EXPECT_EQ(written([](WireWriter& w) { w.data(Data{9}); }), (Data{0, 0, 0, 1, 9}));
}

TEST(WireWriter, LongStringsAreCutOnACharacterBoundary) {
  const std::string ascii(70000, 'x');
  Data out = written([&](WireWriter& w) { w.string(ascii); });
  EXPECT_EQ(out[0] << 8 | out[1], 65535);
  EXPECT_EQ(out.size(), 2u + 65535);

  std::string emoji;
  for (int i = 0; i < 20000; ++i) emoji += "🎉";  // four bytes each
  out = written([&](WireWriter& w) { w.string(emoji); });
  EXPECT_EQ(out[0] << 8 | out[1], 65532);
  FrameReader reader{SharedBytes(out)};
  EXPECT_EQ(reader.string().size(), 65532u);  // still valid UTF-8

  EXPECT_EQ(utf8PrefixLength("aé", 2), 1u);  // é would straddle the limit
  EXPECT_EQ(utf8PrefixLength("aé", 3), 3u);
  EXPECT_EQ(utf8PrefixLength("ab", 5), 2u);
}

TEST(WireWriter, IllFormedTextIsWrittenAsValidUTF8) {
  // Each ill-formed part becomes one U+FFFD: a stray continuation, a cut character, an overlong
  // form, a surrogate; what is well-formed around them stays.
  const struct {
    std::string text, expected;
  } cases[] = {
      {"ok", "ok"},
      {"a\x80" "b", "a\uFFFD" "b"},
      {"a\xE6\x97", "a\uFFFD"},
      {"\xC0\xAFx", "\uFFFD\uFFFDx"},
      {"\xED\xA0\x80", "\uFFFD\uFFFD\uFFFD"},
      {"日\xFF本", "日\uFFFD本"},
  };
  for (const auto& c : cases) {
    Data out = written([&](WireWriter& w) { w.string(c.text); });
    FrameReader reader{SharedBytes(out)};
    EXPECT_EQ(reader.string(), c.expected) << c.text;
  }
}

TEST(FrameReader, ReadsFailPastTheEndWithoutAllocating) {
  FrameReader reader{SharedBytes(Data{0xff, 0xff, 0xff, 0xff, 1})};
  EXPECT_THROW(reader.data(), WireError);  // a 4 GiB count behind one byte
  FrameReader empty{SharedBytes(Data{})};
  EXPECT_TRUE(empty.isAtEnd());
  EXPECT_THROW(empty.u8(), WireError);
  FrameReader three{SharedBytes(Data{1, 2, 3})};
  EXPECT_THROW(three.u32(), WireError);
  EXPECT_EQ(three.take(3).size(), 3u);
}

TEST(FrameReader, StringsMustBeStrictUTF8) {
  auto accepts = [](Data bytes) { return isValidUTF8(bytes); };
  EXPECT_TRUE(accepts({'a', 0xc3, 0xa9, 0xe2, 0x80, 0x99, 0xf0, 0x9f, 0x8e, 0x89}));
  EXPECT_TRUE(accepts({0xf4, 0x8f, 0xbf, 0xbf}));   // U+10FFFF
  EXPECT_FALSE(accepts({0xc0, 0xaf}));              // overlong
  EXPECT_FALSE(accepts({0xe0, 0x80, 0xaf}));        // overlong
  EXPECT_FALSE(accepts({0xed, 0xa0, 0x80}));        // a surrogate
  EXPECT_FALSE(accepts({0xf4, 0x90, 0x80, 0x80}));  // above U+10FFFF
  EXPECT_FALSE(accepts({0xe2, 0x80}));              // cut short
  EXPECT_FALSE(accepts({0x80}));                    // a lone continuation
  EXPECT_FALSE(accepts({0xff}));
}

}  // namespace
}  // namespace kelvaron
