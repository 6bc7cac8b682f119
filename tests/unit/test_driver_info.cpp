#include "protocol.h"

#include <gtest/gtest.h>

TEST(DriverInfo, ParameterTextListsDefaultsNameAndRegisters)
{
    QString text = QString::fromLatin1("stale");
    intf_getDriverParameter(&text);
    EXPECT_EQ(text, QString::fromLatin1("0,19200,8,NONE,2,0,1,192.168.1.10,8000,vorn_kq71_ap,"
                                        "X,Y,S,M,T,C,200C,256C,D,V,Z,TC,TP,CC,CP,200CC,200CP,256CC,256CP"));
    // The runtime splits at commas: ten fields, then the 19 names.
    EXPECT_EQ(text.split(QLatin1Char(',')).size(), 10 + 19);
}

TEST(DriverInfo, TypeVersionAndPageCode)
{
    int type = 42;
    intf_getProtocolType(&type);
    EXPECT_EQ(type, 0);
    EXPECT_EQ(intf_getVersion(), QString::fromLatin1("2.0.0.0"));
    QString page;
    intf_getDriverPropertyPage(&page);
    EXPECT_EQ(page, QString::fromLatin1("0_0"));
}

TEST(DriverInfo, StoredPropertyPageIsKeptButNeverReported)
{
    QString stored = QString::fromLatin1("3_7");
    intf_SetDriverPropertyPage(&stored);
    stored = QString::fromLatin1("changed afterwards");
    EXPECT_EQ(driver.propertyPage, QString::fromLatin1("3_7"));

    QString page;
    intf_getDriverPropertyPage(&page);
    EXPECT_EQ(page, QString::fromLatin1("0_0"));
    intf_SetDriverPropertyPage(nullptr); // a missing page changes nothing
    EXPECT_EQ(driver.propertyPage, QString::fromLatin1("3_7"));
}
