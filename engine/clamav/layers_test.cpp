// SPDX-License-Identifier: GPL-2.0-only
#include "layers.h"

#include <gtest/gtest.h>

#include <string>

namespace clamav_engine {
namespace {

std::string member_name(const Layers& layers) {
  std::array<char, 40> text;
  text.fill('?');
  layers.write_member_name(text);
  return text.data();
}

TEST(Layers, KindComesFromLibclamavsNameOfTheType) {
  EXPECT_EQ(layer_kind("CL_TYPE_ZIP"), LayerKind::kArchive);
  EXPECT_EQ(layer_kind("CL_TYPE_RAR"), LayerKind::kArchive);
  EXPECT_EQ(layer_kind("CL_TYPE_ISO9660"), LayerKind::kArchive);
  EXPECT_EQ(layer_kind("CL_TYPE_GZ"), LayerKind::kStream);
  EXPECT_EQ(layer_kind("CL_TYPE_POSIX_TAR"), LayerKind::kUncompressed);
  EXPECT_EQ(layer_kind("CL_TYPE_OOXML_WORD"), LayerKind::kPlain);
  EXPECT_EQ(layer_kind("CL_TYPE_MAIL"), LayerKind::kPlain);
  EXPECT_EQ(layer_kind("ZIP"), LayerKind::kPlain);
  EXPECT_EQ(layer_kind(""), LayerKind::kPlain);
}

TEST(Layers, ArchivesAreCountedDownToTheInnermostLayer) {
  Layers layers;
  EXPECT_EQ(layers.archives(), 0U);
  layers.enter(0, LayerKind::kPlain, "mail", 0);
  EXPECT_EQ(layers.archives(), 0U);
  layers.enter(1, LayerKind::kArchive, "zip", 0);
  layers.enter(2, LayerKind::kStream, "gz", 0);
  layers.enter(3, LayerKind::kUncompressed, nullptr, 0);
  EXPECT_EQ(layers.archives(), 2U) << "a tar belongs to the compression around it";
  layers.enter(4, LayerKind::kUncompressed, "tar", 0);
  EXPECT_EQ(layers.archives(), 3U);
  layers.leave();
  layers.leave();
  layers.leave();
  EXPECT_EQ(layers.archives(), 1U);
}

TEST(Layers, LevelLeftOutCountsWhereItListedMembersOfAnArchive) {
  Layers layers;
  layers.enter(0, LayerKind::kPlain, "program", 0);
  layers.enter(2, LayerKind::kPlain, "part", 0);
  EXPECT_EQ(layers.archives(), 0U);
  layers.leave();
  layers.list_member(LayerKind::kPlain);
  layers.enter(2, LayerKind::kPlain, "part", 0);
  EXPECT_EQ(layers.archives(), 0U);
  layers.leave();
  layers.list_member(LayerKind::kArchive);
  layers.enter(2, LayerKind::kPlain, "member", 0);
  EXPECT_EQ(layers.archives(), 1U);
  layers.leave();
  layers.enter(2, LayerKind::kStream, "member", 0);
  EXPECT_EQ(layers.archives(), 2U);
}

TEST(Layers, MembersOfAnArchiveSayNothingOfWhatIsInTheNextOne) {
  Layers layers;
  layers.enter(0, LayerKind::kArchive, "zip", 0);
  layers.list_member(LayerKind::kArchive);
  layers.enter(2, LayerKind::kPlain, "part of something in the zip file", 0);
  EXPECT_EQ(layers.archives(), 1U);
  layers.leave();
  layers.enter(1, LayerKind::kPlain, "program", 0);
  layers.enter(3, LayerKind::kPlain, "part of it", 0);
  EXPECT_EQ(layers.archives(), 1U);
}

TEST(Layers, MemberNameLeavesTheFileAndNamelessLayersOut) {
  Layers layers;
  EXPECT_EQ(member_name(layers), "");
  layers.enter(0, LayerKind::kStream, "file", 0);
  EXPECT_EQ(member_name(layers), "");
  layers.enter(1, LayerKind::kUncompressed, nullptr, 0);
  layers.enter(2, LayerKind::kArchive, "dir/a.zip", 0);
  layers.enter(3, LayerKind::kPlain, "b", 0);
  EXPECT_EQ(member_name(layers), "dir/a.zip/b");
  layers.leave();
  layers.enter(3, LayerKind::kPlain, std::string(300, 'n').c_str(), 0);
  EXPECT_EQ(member_name(layers), "dir/a.zip/" + std::string(29, 'n'));
}

TEST(Layers, MoreLayersThanThereIsRoomForAreRefusedAndLeftAgain) {
  Layers layers;
  for (std::uint32_t level = 0; level < 24; ++level) {
    EXPECT_TRUE(layers.enter(level, LayerKind::kArchive, "a", 0));
  }
  EXPECT_FALSE(layers.enter(24, LayerKind::kArchive, "b", 0));
  EXPECT_FALSE(layers.enter(25, LayerKind::kArchive, "b", 0));
  EXPECT_EQ(layers.archives(), 24U);
  for (int i = 0; i < 26; ++i) {
    layers.leave();
  }
  EXPECT_EQ(layers.archives(), 0U);
  layers.leave();
  EXPECT_TRUE(layers.enter(0, LayerKind::kPlain, "c", 0));
}

}  // namespace
}  // namespace clamav_engine
