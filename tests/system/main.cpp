#include <QtCore/QCoreApplication>

#include <gtest/gtest.h>

#include <cstdio>

// The driver's planning lines would drown the test output.
static void quietDebug(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    if (type != QtDebugMsg)
        fprintf(stderr, "%s\n", message.toLocal8Bit().constData());
}

// The links use Qt's socket and serial classes, which want an application object.
int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler(quietDebug);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
