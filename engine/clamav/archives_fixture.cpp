// SPDX-License-Identifier: GPL-2.0-only
#include "archives_fixture.h"

#include <cstdint>

#include "engine_fixture.h"

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

// ---- Zip ----------------------------------------------------------------------------------------

std::string zip_fields(const Member& member) {
  const bool deflated = member.unpacked > 0;
  return number(20, 2) + number(member.encrypted ? 1 : 0, 2) + number(deflated ? 8 : 0, 2) +
         number(0x210000, 4) + number(deflated ? 0 : crc_of(member.content), 4) +
         number(member.content.size(), 4) +
         number(deflated ? member.unpacked : member.content.size(), 4) +
         number(member.name.size(), 2) + number(0, 2);
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
  std::string out;
  std::string directory;
  for (const Member& member : members) {
    directory += "PK\1\2" + number(20, 2) + zip_fields(member) + std::string(10, '\0') +
                 number(out.size(), 4) + member.name;
    out += "PK\3\4" + zip_fields(member) + member.name + member.content;
  }
  return out + directory + "PK\5\6" + number(0, 4) + number(members.size(), 2) +
         number(members.size(), 2) + number(directory.size(), 4) + number(out.size(), 4) +
         number(0, 2);
}

std::string zip_of_zeros(const std::string& name, std::size_t size) {
  // What gzip puts around it is no part of a zip file.
  const std::string packed = gzip_of_zeros(size);
  return zip_with({{name, packed.substr(10, packed.size() - 18), false, size}});
}

std::string gzip_of(const std::string& content) {
  return output_of("gzip -n", content);
}

std::string gzip_of_zeros(std::size_t size) {
  return gzip_of(std::string(size, '\0'));
}

std::string tar_with(const std::vector<Member>& members) {
  const TempDirectory folder;
  std::string command = "tar --create --format=ustar --directory=" + folder.path();
  for (const Member& member : members) {
    fs::create_directories(fs::path(folder.path(member.name)).parent_path());
    (void)folder.put(member.name, member.content);
    command += " " + member.name;
  }
  return output_of(command, "");
}

std::string seven_zip_with(const Member& member) {
  const std::string directory = seven_zip_directory(member);
  const std::string start =
      number(member.content.size(), 8) + number(directory.size(), 8) + number(crc_of(directory), 4);
  return "7z\xBC\xAF\x27\x1C" + number(0x0400, 2) + number(crc_of(start), 4) + start +
         member.content + directory;
}

}  // namespace engine_test
