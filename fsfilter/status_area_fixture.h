// For the tests of the status area: an object that goes with the test.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "fsfilter_shmem.h"

/// An object of the test's own name, gone with the test.
class StatusAreaTest : public testing::Test {
 protected:
  StatusAreaTest() : name_("/pelo-test-" + std::to_string(getpid())) {
    (void)shm_unlink(name_.c_str());
  }
  ~StatusAreaTest() override { (void)shm_unlink(name_.c_str()); }

  std::string file() const { return "/dev/shm" + name_; }

  fsfilter_shared_t create() { return fsfilter_shared_create(name_.c_str()); }
  fsfilter_shared_t open_again() { return fsfilter_shared_open(name_.c_str()); }

  std::string name_;
};
