#include "served_mount.h"

#include <gtest/gtest.h>

#include <list>
#include <ostream>
#include <string>

namespace {

/// The last mount of a table, and whether it is served.
struct Case {
  const char* name;
  std::list<mntinfo> table;
  bool served;
};

std::ostream& operator<<(std::ostream& out, const Case& row) {
  return out << row.name;
}

class ServedMountTest : public testing::TestWithParam<Case> {};

TEST_P(ServedMountTest, IsToldFromTheTable) {
  EXPECT_EQ(is_served(GetParam().table.back().name, GetParam().table), GetParam().served);
}

const mntinfo root{"/", "ext4", ""};
const mntinfo fuse{"/pool", "fuse.bindfs", ""};

mntinfo overlay(const std::string& options) {
  return {"/merged", "overlay", options};
}

INSTANTIATE_TEST_SUITE_P(
    ByType, ServedMountTest,
    testing::Values(Case{"disk", {root}, false},
                    Case{"memory", {root, {"/run", "tmpfs", ""}}, false},
                    Case{"the only one, without tracking", {{"/", "root", ""}}, false},
                    Case{"FUSE", {root, fuse}, true},
                    Case{"FUSE on a disk", {root, {"/usb", "fuseblk", ""}}, true},
                    Case{"a network", {root, {"/net", "cifs", ""}}, true},
                    Case{"a host", {root, {"/host", "9p", ""}}, true},
                    Case{"a type that nobody knows", {root, {"/x", "newfs", ""}}, true},
                    Case{
                        "a name that begins like a known one", {root, {"/x", "ext4x", ""}}, true}));

INSTANTIATE_TEST_SUITE_P(
    ByPlace, ServedMountTest,
    testing::Values(Case{"below a served one", {root, fuse, {"/pool/tmp", "tmpfs", ""}}, true},
                    Case{"deep below", {root, fuse, {"/pool/a/b", "tmpfs", ""}}, true},
                    Case{"in its place", {root, fuse, {"/pool", "tmpfs", ""}}, true},
                    Case{"a served one in its place", {root, {"/pool", "tmpfs", ""}, fuse}, true},
                    Case{"below a served overlay",
                         {root, fuse, overlay("lowerdir=/pool"), {"/merged/x", "tmpfs", ""}},
                         true},
                    Case{"beside it", {root, fuse, {"/poolside", "tmpfs", ""}}, false},
                    Case{"around it", {fuse, root}, false},
                    Case{"below a served root", {{"/", "9p", ""}, {"/run", "tmpfs", ""}}, false}));

INSTANTIATE_TEST_SUITE_P(
    OverlaysByTheirLayers, ServedMountTest,
    testing::Values(
        Case{"on a disk", {root, overlay("rw,lowerdir=/a:/b,upperdir=/c,workdir=/w")}, false},
        Case{"lower layer served", {root, fuse, overlay("lowerdir=/a:/pool/b,upperdir=/c")}, true},
        Case{"upper layer served", {root, fuse, overlay("lowerdir=/a,upperdir=/pool")}, true},
        Case{"one option a layer", {root, fuse, overlay("lowerdir+=/a,lowerdir+=/pool/x")}, true},
        Case{"data layer served", {root, fuse, overlay("lowerdir=/a::/b,datadir+=/pool")}, true},
        Case{"double colon", {root, fuse, overlay("lowerdir=/a::/b")}, false},
        Case{"name like a served one's", {root, fuse, overlay("lowerdir=/poolside")}, false},
        Case{"mount in between",
             {root, fuse, {"/pool/m", "xfs", ""}, overlay("lowerdir=/pool/m/x")},
             false},
        Case{"overlay on a served overlay",
             {root, fuse, {"/first", "overlay", "lowerdir=/pool"}, overlay("lowerdir=/first/x")},
             true},
        Case{"overlay on an overlay on a disk",
             {root, fuse, {"/first", "overlay", "lowerdir=/a"}, overlay("lowerdir=/first/x")},
             false},
        Case{"overlay on itself", {root, overlay("lowerdir=/merged/x")}, true},
        Case{"relative layer", {root, overlay("lowerdir=l/AB,upperdir=/c")}, true},
        Case{"escaped layer", {root, overlay("lowerdir=/a\\040b")}, true},
        Case{"no layer told", {root, overlay("rw,relatime")}, true},
        Case{"no options", {root, overlay("")}, true}));

}  // namespace
