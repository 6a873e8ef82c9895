// A program that does not define __dlog_printf.

#include "artifacts/abi/loaded_library.h"

#include "gmock/gmock.h"
#include "gtest/gtest.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

TEST(MissingDlogTest, MakesLoadingFailWithAMessageThatNamesTheFunction)
{
    const LoadedLibrary library(ORV_LIBRARY);

    EXPECT_THAT(library.Error(), HasSubstr("__dlog_printf"));
    EXPECT_THAT(MappedProductLibraries(), ElementsAre());
}

}  // namespace
