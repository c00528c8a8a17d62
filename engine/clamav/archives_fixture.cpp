// SPDX-License-Identifier: GPL-2.0-only
#include "archives_fixture.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <utility>

namespace engine_test {
namespace {

std::string number(std::uint64_t value, std::size_t bytes) {
  std::string out;
  for (std::size_t i = 0; i < bytes; ++i) {
    out += static_cast<char>(value >> (8 * i) & 0xFFU);
  }
  return out;
}

std::uint32_t crc_of(const std::string& text) {
  std::uint32_t crc = ~std::uint32_t{0};
  for (const char c : text) {
    crc ^= static_cast<unsigned char>(c);
    for (int bit = 0; bit < 8; ++bit) {
      crc = crc >> 1U ^ ((crc & 1U) != 0 ? 0xEDB88320U : 0U);
    }
  }
  return ~crc;
}

// ---- Deflate: blocks of bytes as they are, and one block of zeros -------------------------------

std::string stored(const std::string& content) {
  constexpr std::size_t kBlock = 65535;
  std::string out;
  std::size_t done = 0;
  do {
    const std::string block = content.substr(done, kBlock);
    done += block.size();
    out += done == content.size() ? '\1' : '\0';
    out += number(block.size(), 2) + number(~block.size(), 2) + block;
  } while (done < content.size());
  return out;
}

class Bits {
 public:
  // The codes of the format come most significant bit first.
  void code(std::uint32_t value, unsigned int length) {
    for (unsigned int i = length; i-- > 0;) {
      current_ |= (value >> i & 1U) << used_++;
      if (used_ == 8) {
        finish();
      }
    }
  }
  void finish() {
    if (used_ > 0) {
      out_ += static_cast<char>(current_);
      current_ = used_ = 0;
    }
  }
  std::string take() { return std::move(out_); }

 private:
  std::string out_;
  std::uint32_t current_ = 0;
  unsigned int used_ = 0;
};

// A zero byte, then "258 bytes again from one byte before" as often as it takes.
std::string deflated_zeros(std::size_t size) {
  Bits bits;
  bits.code(1, 1);     // the last block,
  bits.code(2, 2);     // with the codes of the format
  bits.code(0x30, 8);  // the byte 0
  for (std::size_t left = size - 1; left >= 258; left -= 258) {
    bits.code(0xC5, 8);  // length 258
    bits.code(0, 5);     // distance 1
  }
  for (std::size_t i = 0; i < (size - 1) % 258; ++i) {
    bits.code(0x30, 8);
  }
  bits.code(0, 7);  // the end of the block
  bits.finish();
  return bits.take();
}

std::string gzip_around(const std::string& deflated, std::uint32_t crc, std::size_t size) {
  const std::string header("\x1F\x8B\x08\0\0\0\0\0\0\x03", 10);
  return header + deflated + number(crc, 4) + number(size, 4);
}

// ---- Zip ----------------------------------------------------------------------------------------

struct Entry {
  std::string name;
  std::string packed;
  std::uint64_t size;
  unsigned int method;  // 0 stored, 8 deflated
  bool encrypted;
  std::uint32_t crc;
};

std::string entry_fields(const Entry& entry) {
  return number(20, 2) + number(entry.encrypted ? 1 : 0, 2) + number(entry.method, 2) +
         number(0x210000, 4) + number(entry.crc, 4) + number(entry.packed.size(), 4) +
         number(entry.size, 4) + number(entry.name.size(), 2) + number(0, 2);
}

std::string zip_of(const std::vector<Entry>& entries) {
  std::string out;
  std::string directory;
  for (const Entry& entry : entries) {
    directory += "PK\1\2" + number(20, 2) + entry_fields(entry) + std::string(10, '\0') +
                 number(out.size(), 4) + entry.name;
    out += "PK\3\4" + entry_fields(entry) + entry.name + entry.packed;
  }
  return out + directory + "PK\5\6" + number(0, 4) + number(entries.size(), 2) +
         number(entries.size(), 2) + number(directory.size(), 4) + number(out.size(), 4) +
         number(0, 2);
}

// ---- Tar ----------------------------------------------------------------------------------------

std::string octal(std::size_t value, int digits) {
  std::array<char, 24> text{};
  (void)std::snprintf(text.data(), text.size(), "%0*zo", digits, value);
  return text.data();
}

std::string tar_header(const Member& member) {
  std::string header(512, '\0');
  const auto put = [&](std::size_t at, const std::string& text) {
    header.replace(at, text.size(), text);
  };
  put(0, member.name);
  put(100, "0000644");
  put(108, "0000000");
  put(116, "0000000");
  put(124, octal(member.content.size(), 11));
  put(136, octal(0, 11));
  put(148, std::string(8, ' '));  // the sum is taken with its own field blank
  put(156, "0");
  put(257, std::string("ustar\0"
                       "00",
                       8));
  std::size_t sum = 0;
  for (const char c : header) {
    sum += static_cast<unsigned char>(c);
  }
  put(148, octal(sum, 6) + '\0');
  return header;
}

// ---- 7z -----------------------------------------------------------------------------------------

std::string seven_zip_number(std::uint64_t value) {
  return value < 0x80 ? number(value, 1) : '\xFF' + number(value, 8);
}

std::string wide(const std::string& name) {
  std::string out;
  for (const char c : name + '\0') {
    out += c;
    out += '\0';
  }
  return out;
}

std::string seven_zip_directory(const Member& member) {
  const std::string size = seven_zip_number(member.content.size());
  const std::string name = '\0' + wide(member.name);
  const std::string packed = std::string("\6\0\1\x09", 4) + size + '\0';
  const std::string copied = std::string("\7\x0B\1\0\1\1\0\x0C", 8) + size + '\0';
  const std::string checked = "\x08\x0A\1" + number(crc_of(member.content), 4) + '\0';
  const std::string files = "\5\1\x11" + seven_zip_number(name.size()) + name + '\0';
  return "\1\4" + packed + copied + checked + '\0' + files + '\0';
}

}  // namespace

std::string zip_with(const std::vector<Member>& members) {
  std::vector<Entry> entries;
  entries.reserve(members.size());
  for (const Member& member : members) {
    entries.push_back({member.name, member.content, member.content.size(), 0, member.encrypted,
                       crc_of(member.content)});
  }
  return zip_of(entries);
}

std::string zip_of_zeros(const std::string& name, std::size_t size) {
  return zip_of({{name, deflated_zeros(size), size, 8, false, 0}});
}

std::string gzip_of(const std::string& content) {
  return gzip_around(stored(content), crc_of(content), content.size());
}

std::string gzip_of_zeros(std::size_t size) {
  return gzip_around(deflated_zeros(size), 0, size);
}

std::string tar_with(const std::vector<Member>& members) {
  std::string out;
  for (const Member& member : members) {
    std::string body = member.content;
    body.resize((body.size() + 511) / 512 * 512, '\0');
    out += tar_header(member) + body;
  }
  return out + std::string(1024, '\0');
}

std::string seven_zip_with(const Member& member) {
  const std::string directory = seven_zip_directory(member);
  const std::string start =
      number(member.content.size(), 8) + number(directory.size(), 8) + number(crc_of(directory), 4);
  return "7z\xBC\xAF\x27\x1C" + number(0x0400, 2) + number(crc_of(start), 4) + start +
         member.content + directory;
}

}  // namespace engine_test
