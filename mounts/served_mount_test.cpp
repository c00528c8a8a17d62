#include "served_mount.h"

#include <gtest/gtest.h>

#include <list>
#include <string>

namespace {

const mntinfo root{"/", "ext4", ""};
const mntinfo fuse{"/pool", "fuse.bindfs", ""};

mntinfo overlay(const std::string& options) {
  return {"/merged", "overlay", options};
}

TEST(ServedMountTest, IsToldFromTheTable) {
  struct {
    const char* name;
    std::list<mntinfo> table;
    bool served;  // the last mount of the table
  } const cases[] = {
      {"disk", {root}, false},
      {"memory", {root, {"/run", "tmpfs", ""}}, false},
      {"the only one, without tracking", {{"/", "root", ""}}, false},
      {"FUSE", {root, fuse}, true},
      {"FUSE on a disk", {root, {"/usb", "fuseblk", ""}}, true},
      {"a network", {root, {"/net", "cifs", ""}}, true},
      {"a host", {root, {"/host", "9p", ""}}, true},
      {"a type that nobody knows", {root, {"/x", "newfs", ""}}, true},
      {"a name that begins like a known one", {root, {"/x", "ext4x", ""}}, true},
      {"below a served one", {root, fuse, {"/pool/tmp", "tmpfs", ""}}, true},
      {"deep below", {root, fuse, {"/pool/a/b", "tmpfs", ""}}, true},
      {"in its place", {root, fuse, {"/pool", "tmpfs", ""}}, true},
      {"a served one in its place", {root, {"/pool", "tmpfs", ""}, fuse}, true},
      {"below a served overlay",
       {root, fuse, overlay("lowerdir=/pool"), {"/merged/x", "tmpfs", ""}},
       true},
      {"beside it", {root, fuse, {"/poolside", "tmpfs", ""}}, false},
      {"around it", {fuse, root}, false},
      {"below a served root", {{"/", "9p", ""}, {"/run", "tmpfs", ""}}, false},

      {"on a disk", {root, overlay("rw,lowerdir=/a:/b,upperdir=/c,workdir=/w")}, false},
      {"lower layer served", {root, fuse, overlay("lowerdir=/a:/pool/b,upperdir=/c")}, true},
      {"upper layer served", {root, fuse, overlay("lowerdir=/a,upperdir=/pool")}, true},
      {"one option a layer", {root, fuse, overlay("lowerdir+=/a,lowerdir+=/pool/x")}, true},
      {"data layer served", {root, fuse, overlay("lowerdir=/a::/b,datadir+=/pool")}, true},
      {"double colon", {root, fuse, overlay("lowerdir=/a::/b")}, false},
      {"name like a served one's", {root, fuse, overlay("lowerdir=/poolside")}, false},
      {"mount in between",
       {root, fuse, {"/pool/m", "xfs", ""}, overlay("lowerdir=/pool/m/x")},
       false},
      {"overlay on a served overlay",
       {root, fuse, {"/first", "overlay", "lowerdir=/pool"}, overlay("lowerdir=/first/x")},
       true},
      {"overlay on an overlay on a disk",
       {root, fuse, {"/first", "overlay", "lowerdir=/a"}, overlay("lowerdir=/first/x")},
       false},
      {"overlay on itself", {root, overlay("lowerdir=/merged/x")}, true},
      {"relative layer", {root, overlay("lowerdir=l/AB,upperdir=/c")}, true},
      {"escaped layer", {root, overlay("lowerdir=/a\\040b")}, true},
      {"no layer told", {root, overlay("rw,relatime")}, true},
      {"no options", {root, overlay("")}, true}};
  for (const auto& [name, table, served] : cases) {
    EXPECT_EQ(is_served(table.back().name, table), served) << name;
  }
}

}  // namespace
