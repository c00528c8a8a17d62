// Path sets, trust and the texts of the status area, through the public operations.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "fed_filter.h"
#include "temp_directory.h"

namespace {

class FilterTest : public testing::Test {
 protected:
  std::string make_folder(const std::string& name) const {
    (void)mkdir(folder_.path(name).c_str(), 0755);
    return folder_.path(name);
  }

  /// A text of the area, to its end or its first NUL.
  static std::string text(const char (&area)[FSFILTER_TEXT_SIZE]) {
    return {area, strnlen(area, sizeof area)};
  }

  TempDirectory folder_;
  FedFilter filter_;
  fsfilter_handle_t handle_ = filter_.handle();
};

TEST_F(FilterTest, NullsAreRefused) {
  fsfilter_event_struct event{};
  for (auto* operation : {register_filter, open_filter}) {
    EXPECT_EQ(operation(nullptr), -1);
  }
  for (auto* operation : {unregister_filter, close_filter}) {
    EXPECT_EQ(operation(nullptr), -1);
  }
  for (auto* operation : {register_trusted, unregister_trusted}) {
    EXPECT_EQ(operation(nullptr, 5), -1);
  }
  for (auto* operation : {add_inclusion, remove_inclusion, add_exclusion, remove_exclusion,
                          register_folder, unregister_folder, ignore_path}) {
    EXPECT_EQ(operation(nullptr, "/"), -1);
  }
  EXPECT_EQ(register_mounting_point(nullptr, "/", "ext4"), -1);
  EXPECT_EQ(unregister_mounting_point(nullptr, "/", "ext4"), -1);
  EXPECT_EQ(unregister_mounting_point(nullptr, "/", "nfs"), -1);
  EXPECT_EQ(request_event(nullptr, &event, 0), -1);
  EXPECT_EQ(request_event(handle_, nullptr, 0), -1);
  EXPECT_EQ(set_result(nullptr, &event), -1);
  EXPECT_EQ(set_result(handle_, nullptr), -1);
  EXPECT_EQ(fsfilter_read_status(nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
  errno = 0;
  EXPECT_EQ(fsfilter_thread_post_job(nullptr, &event, nullptr), -1);
  EXPECT_EQ(fsfilter_thread_post_job(handle_, nullptr, nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(filter_.statistics().answered, 0U);
}

TEST_F(FilterTest, EmptySetsIncludeEverythingAndAnExclusionInsideAnInclusionWins) {
  const std::string data = make_folder("data");
  const std::string tmp = make_folder("data/tmp");
  EXPECT_EQ(add_inclusion(handle_, folder_.path("missing").c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(is_included(handle_, "/anything"), 1);
  EXPECT_EQ(is_excluded(handle_, "/anything"), 0);
  EXPECT_EQ(add_inclusion(handle_, data.c_str()), 0);
  EXPECT_EQ(add_exclusion(handle_, tmp.c_str()), 0);
  EXPECT_EQ(is_included(handle_, (data + "base/x").c_str()), 0);
  EXPECT_EQ(is_included(handle_, (tmp + "/x").c_str()), 1);
  EXPECT_EQ(is_excluded(handle_, (tmp + "/x").c_str()), 1);
  EXPECT_EQ(is_excluded(handle_, (data + "/tmpfile").c_str()), 0);
  EXPECT_EQ(remove_inclusion(handle_, data.c_str()), 0);
  EXPECT_EQ(is_included(handle_, "/anything"), 1);
}

TEST_F(FilterTest, PathSetsAreMirroredALineForEachPath) {
  const std::string a = make_folder("a");
  const std::string b = make_folder("b");
  ASSERT_EQ(add_inclusion(handle_, a.c_str()), 0);
  ASSERT_EQ(add_inclusion(handle_, b.c_str()), 0);
  EXPECT_THAT(text(filter_.area().inclusions),
              testing::AnyOf(a + "\n" + b + "\n", b + "\n" + a + "\n"));
  ASSERT_EQ(add_exclusion(handle_, b.c_str()), 0);
  EXPECT_EQ(text(filter_.area().exclusions), b + "\n");
  EXPECT_EQ(text(filter_.area().mounts), "");
  EXPECT_EQ(remove_exclusion(handle_, b.c_str()), 0);
  const auto& area = filter_.area().exclusions;
  EXPECT_TRUE(std::all_of(std::begin(area), std::end(area), [](char c) { return c == '\0'; }));
}

TEST_F(FilterTest, ATextOfTheAreasSizeHasNoTerminatorAndALongerOneLeavesIt) {
  PathSet set;
  set[std::string(FSFILTER_TEXT_SIZE - 1, 'x')] = {};
  syncPathList(set, filter_.area().inclusions);
  EXPECT_EQ(filter_.area().inclusions[FSFILTER_TEXT_SIZE - 1], '\n');
  EXPECT_EQ(filter_.area().inclusions[FSFILTER_TEXT_SIZE - 2], 'x');
  EXPECT_EQ(filter_.area().exclusions[0], '\0');
  set = {{"/new", {}}, {std::string(FSFILTER_TEXT_SIZE - 5, 'y'), {}}};
  syncPathList(set, filter_.area().inclusions);
  EXPECT_EQ(text(filter_.area().inclusions), std::string(FSFILTER_TEXT_SIZE - 1, 'x') + '\n');
}

TEST_F(FilterTest, AMountWhoseMarkFailsIsListedUntilItIsUnregisteredButNoNetworkFileSystem) {
  const std::string path = folder_.path();
  for (const char* type : {"nfs", "nfs4", "nfsd"}) {
    EXPECT_EQ(register_mounting_point(handle_, path.c_str(), type), -1) << type;
  }
  EXPECT_EQ(text(filter_.area().mounts), "");
  EXPECT_EQ(register_mounting_point(handle_, path.c_str(), "xnfs"), -1);
  EXPECT_EQ(errno, EINVAL) << "a socket is no group";
  EXPECT_EQ(unregister_mounting_point(handle_, path.c_str(), "nfs4"), 0);
  EXPECT_EQ(text(filter_.area().mounts), path + "\n");
  (void)unregister_mounting_point(handle_, path.c_str(), "ext4");
  EXPECT_EQ(text(filter_.area().mounts), "");
}

TEST_F(FilterTest, OnlyTheOwnerOfTheAreaChangesTrust) {
  EXPECT_EQ(register_trusted(handle_, 1000), -1);
  filter_.area().owner_pid = getpid();
  EXPECT_EQ(register_trusted(handle_, 1000), 0);
  EXPECT_EQ(register_trusted(handle_, 1001), 0) << "whatever the slot";
  EXPECT_EQ(unregister_trusted(handle_, 1001), 0);
  EXPECT_EQ(unregister_trusted(handle_, 1001), -1);
  filter_.area().owner_pid = getpid() + 1;
  EXPECT_EQ(unregister_trusted(handle_, 1000), -1);
  EXPECT_EQ(is_trusted_pid(handle_, 1000), 1);
  EXPECT_EQ(is_trusted_pid(handle_, 1001), 0);
}

TEST_F(FilterTest, TheFiltersProcessAndTheAreasOwnerAreTrustedButNotPidZero) {
  EXPECT_EQ(is_trusted_pid(handle_, 0), 0);
  filter_.context().state->owner_pid = 4711;
  filter_.area().owner_pid = 4712;
  EXPECT_EQ(is_trusted_pid(handle_, 4711), 1) << "whatever the area says";
  EXPECT_EQ(is_trusted_pid(handle_, 4712), 1);
  filter_.area().owner_pid = -3;
  EXPECT_EQ(is_trusted_pid(handle_, -3), 0);
}

}  // namespace
