// The daemon on a machine that has no scan engine.
#include <gtest/gtest.h>

#include <string>

#include "fixture.h"

namespace e2e {
namespace {

class StubEngine : public E2eTest {};

TEST_F(StubEngine, IsReportedAndEverythingAllowed) {
  const std::string infected = put_infected("bad");
  const std::string clean = put_clean("good");
  Launch launch;
  launch.environment["LD_LIBRARY_PATH"] = PELO_STUB_ENGINE;
  set_threads(1);  // who has answered has said whatever there is to say
  start(launch);
  EXPECT_EQ(open_status(infected), 0);
  EXPECT_EQ(open_status(clean), 0);
  EXPECT_EQ(count_of(log(),
                     "Error number: 0x00000001\n"
                     "Error Description: \"Unable to initialize scan engine\"\n"),
            1U)
      << log();
  EXPECT_FALSE(logged("no engine handle")) << log();
  EXPECT_EQ(engine_record(), "");
}

}  // namespace
}  // namespace e2e
