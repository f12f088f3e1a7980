// Placeholder until the suite of this source lands.
#include <gtest/gtest.h>

#include "timer_harness.h"

TEST(TimerPlaceholder, EngineIsStoppedAtLoad) { EXPECT_EQ(petimer_getTreadId(), 0u); }
