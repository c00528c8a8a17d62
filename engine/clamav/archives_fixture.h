// SPDX-License-Identifier: GPL-2.0-only
// Archives made as the tests run.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace engine_test {

struct Member {
  std::string name;
  std::string content;
  bool encrypted = false;    ///< says so; the content is taken as encrypted already (zip only)
  std::size_t unpacked = 0;  ///< the size of content that is deflated already (zip only)
};

// The members are stored as they are.
std::string zip_with(const std::vector<Member>& members);
std::string tar_with(const std::vector<Member>& members);
std::string seven_zip_with(const Member& member);
std::string gzip_of(const std::string& content);

// Many zero bytes in about a thousandth of their size.
std::string zip_of_zeros(const std::string& name, std::size_t size);
std::string gzip_of_zeros(std::size_t size);

}  // namespace engine_test
