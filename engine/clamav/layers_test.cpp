// SPDX-License-Identifier: GPL-2.0-only
#include "layers.h"

#include <gtest/gtest.h>

namespace clamav_engine {
namespace {

TEST(Layers, KindComesFromLibclamavsNameOfTheType) {
  EXPECT_EQ(layer_kind("CL_TYPE_RAR"), LayerKind::archive);
  EXPECT_EQ(layer_kind("CL_TYPE_ISO9660"), LayerKind::archive);
  EXPECT_EQ(layer_kind("ZIP"), LayerKind::plain);
  EXPECT_EQ(layer_kind(""), LayerKind::plain);
}

TEST(Layers, LevelLeftOutCountsWhereItListedMembersOfAnArchive) {
  Layers layers;
  layers.enter(0, LayerKind::plain, "program", 0);
  layers.enter(2, LayerKind::plain, "part", 0);
  EXPECT_EQ(layers.archives(), 0U);
  layers.leave();
  layers.list_member(LayerKind::plain);
  layers.enter(2, LayerKind::plain, "part", 0);
  EXPECT_EQ(layers.archives(), 0U);
  layers.leave();
  layers.list_member(LayerKind::archive);
  layers.enter(2, LayerKind::plain, "member", 0);
  EXPECT_EQ(layers.archives(), 1U);
  layers.leave();
  layers.enter(2, LayerKind::stream, "member", 0);
  EXPECT_EQ(layers.archives(), 2U);
}

TEST(Layers, MembersOfAnArchiveSayNothingOfWhatIsInTheNextOne) {
  Layers layers;
  layers.enter(0, LayerKind::archive, "zip", 0);
  layers.list_member(LayerKind::archive);
  layers.enter(2, LayerKind::plain, "part of something in the zip file", 0);
  EXPECT_EQ(layers.archives(), 1U);
  layers.leave();
  layers.enter(1, LayerKind::plain, "program", 0);
  layers.enter(3, LayerKind::plain, "part of it", 0);
  EXPECT_EQ(layers.archives(), 1U);
}

TEST(Layers, MoreLayersThanThereIsRoomForAreLeftAgain) {
  Layers layers;
  for (std::uint32_t level = 0; level < 100; ++level) {
    layers.enter(level, LayerKind::archive, "a", 0);
  }
  EXPECT_EQ(layers.archives(), 100U);
  for (int i = 0; i < 101; ++i) {
    layers.leave();
  }
  EXPECT_EQ(layers.archives(), 0U);
  layers.enter(0, LayerKind::stream, "b", 0);
  EXPECT_EQ(layers.archives(), 1U);
}

}  // namespace
}  // namespace clamav_engine
