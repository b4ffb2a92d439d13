// Console capture for tests of code that prints its texts.
#pragma once
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "tests/support/process.h"

// What `run` prints on standard output while it runs.
template <class Run>
std::string CapturedStdout(Run run)
{
    testing::internal::CaptureStdout();
    run();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}
