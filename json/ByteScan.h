#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace yajson {

namespace detail {
alignas(16) inline constexpr unsigned char kOnesThenZeros[32] = {
    0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
}

/// Sixteen bytes of text looked at together: bit i of a mask stands for byte i.
///
/// On x86-64 every question is one to three instructions; elsewhere the bytes are asked one by one.
class Bytes16 {
 public:
  static constexpr int kCount = 16;

#ifdef __SSE2__
  explicit Bytes16(const char* bytes) noexcept
      : bytes_(_mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes))) {}

  void store(char* target) const noexcept {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(target), bytes_);
  }
  /// The first `count` <= 16 bytes followed by zeros.
  Bytes16 first(std::size_t count) const noexcept {
    const auto* const keep = detail::kOnesThenZeros + 16 - count;
    return Bytes16(_mm_and_si128(bytes_, _mm_loadu_si128(reinterpret_cast<const __m128i*>(keep))));
  }
  Bytes16 with_bits(char bits) const noexcept {
    return Bytes16(_mm_or_si128(bytes_, _mm_set1_epi8(bits)));
  }
  unsigned equal(char byte) const noexcept {
    return mask(_mm_cmpeq_epi8(bytes_, _mm_set1_epi8(byte)));
  }
  /// Quotes, backslashes and bytes below 0x20.
  unsigned string_stops() const noexcept {
    const __m128i quote = _mm_cmpeq_epi8(bytes_, _mm_set1_epi8('"'));
    const __m128i backslash = _mm_cmpeq_epi8(bytes_, _mm_set1_epi8('\\'));
    const __m128i control = _mm_cmpeq_epi8(_mm_min_epu8(bytes_, _mm_set1_epi8(0x1f)), bytes_);
    return mask(_mm_or_si128(_mm_or_si128(quote, backslash), control));
  }
  /// Whatever is not space, tab, line feed or carriage return.
  unsigned non_spaces() const noexcept {
    const __m128i blank = _mm_or_si128(_mm_cmpeq_epi8(bytes_, _mm_set1_epi8(' ')),
                                       _mm_cmpeq_epi8(bytes_, _mm_set1_epi8('\t')));
    const __m128i line = _mm_or_si128(_mm_cmpeq_epi8(bytes_, _mm_set1_epi8('\n')),
                                      _mm_cmpeq_epi8(bytes_, _mm_set1_epi8('\r')));
    return mask(_mm_or_si128(blank, line)) ^ 0xffff;
  }
  /// Bytes from 0x80 up.
  unsigned non_ascii() const noexcept { return mask(bytes_); }

 private:
  explicit Bytes16(__m128i bytes) noexcept : bytes_(bytes) {}
  static unsigned mask(__m128i bytes) noexcept {
    return static_cast<unsigned>(_mm_movemask_epi8(bytes));
  }
  __m128i bytes_;
#else
  explicit Bytes16(const char* bytes) noexcept { std::memcpy(bytes_, bytes, sizeof bytes_); }

  void store(char* target) const noexcept { std::memcpy(target, bytes_, sizeof bytes_); }
  Bytes16 first(std::size_t count) const noexcept {
    Bytes16 result(*this);
    std::memset(result.bytes_ + count, 0, kCount - count);
    return result;
  }
  Bytes16 with_bits(char bits) const noexcept {
    Bytes16 result(*this);
    for (char& byte : result.bytes_) byte = static_cast<char>(byte | bits);
    return result;
  }
  unsigned equal(char byte) const noexcept {
    return mask([byte](char other) { return other == byte; });
  }
  unsigned string_stops() const noexcept {
    return mask([](char byte) {
      return byte == '"' || byte == '\\' || static_cast<unsigned char>(byte) < 0x20;
    });
  }
  unsigned non_spaces() const noexcept {
    return mask(
        [](char byte) { return byte != ' ' && byte != '\t' && byte != '\n' && byte != '\r'; });
  }
  unsigned non_ascii() const noexcept {
    return mask([](char byte) { return static_cast<unsigned char>(byte) >= 0x80; });
  }

 private:
  template <typename Test>
  unsigned mask(Test test) const noexcept {
    unsigned bits = 0;
    for (int i = 0; i < kCount; ++i) bits |= static_cast<unsigned>(test(bytes_[i])) << i;
    return bits;
  }
  char bytes_[kCount];
#endif
};

/// Copies `length` >= 16 bytes in pieces of 16; the last one overlaps the one before.
inline void copy_at_least_16(char* target, const char* source, std::size_t length) noexcept {
  std::size_t place = 0;
  for (; place + Bytes16::kCount < length; place += Bytes16::kCount)
    Bytes16(source + place).store(target + place);
  Bytes16(source + length - Bytes16::kCount).store(target + length - Bytes16::kCount);
}

}  // namespace yajson
