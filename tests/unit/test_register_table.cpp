#include "protocol.h"
#include "register_table.h"

#include <gtest/gtest.h>

TEST(RegisterTable, DriverHoldsTheNamesInTableOrder)
{
    ASSERT_EQ(driver.regNames.size(), REG_COUNT);
    for (int i = 0; i < REG_COUNT; ++i)
        EXPECT_EQ(driver.regNames.at(i), REG_LIST[i]);
}
