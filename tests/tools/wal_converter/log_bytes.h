// log_bytes: a byte builder for hand-made 2.0 logs in tests.
//
// Appends the mark, the version word and record fields in either byte order, so that golden
// logs are written in the test straight from the record table. Knows nothing of the records
// themselves: the test spells out each tag and field.
#ifndef J480_TESTS_TOOLS_WAL_CONVERTER_LOG_BYTES_H
#define J480_TESTS_TOOLS_WAL_CONVERTER_LOG_BYTES_H

#include <cstdint>
#include <string>

namespace j480test {

class LogBytes {
 public:
  explicit LogBytes(bool big_endian = false) : big_(big_endian) {}

  // The mark 1234 and the version word (2.0 by default).
  LogBytes& head(int64_t version = 0x435257414C000000LL) {
    i16(1234);
    return lng(version);
  }
  LogBytes& i16(int16_t v) { return put(static_cast<uint64_t>(static_cast<uint16_t>(v)), 2); }
  LogBytes& i32(int32_t v) { return put(static_cast<uint64_t>(static_cast<uint32_t>(v)), 4); }
  LogBytes& lng(int64_t v) { return put(static_cast<uint64_t>(v), 8); }
  // A string field: its int length, then its bytes.
  LogBytes& str(const std::string& text) {
    i32(static_cast<int32_t>(text.size()));
    return raw(text);
  }
  LogBytes& raw(const std::string& bytes) {
    data_ += bytes;
    return *this;
  }
  // An 8-byte item stored raw, in the machine's (little-endian) order whatever the file's.
  LogBytes& raw_lng(int64_t v) {
    for (int i = 0; i < 8; i++)
      data_.push_back(static_cast<char>((static_cast<uint64_t>(v) >> (8 * i)) & 0xFF));
    return *this;
  }

  const std::string& bytes() const { return data_; }
  size_t size() const { return data_.size(); }

 private:
  LogBytes& put(uint64_t v, int n) {
    for (int i = 0; i < n; i++) {
      int shift = big_ ? 8 * (n - 1 - i) : 8 * i;
      data_.push_back(static_cast<char>((v >> shift) & 0xFF));
    }
    return *this;
  }

  bool big_;
  std::string data_;
};

}  // namespace j480test

#endif  // J480_TESTS_TOOLS_WAL_CONVERTER_LOG_BYTES_H
