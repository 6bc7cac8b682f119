// kq71 bridge as a program, with mosquitto's own command-line clients.
#include "broker.h"

#include <gtest/gtest.h>

#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>

using namespace kq71test;

namespace {

struct Finished {
    int code = -1;
    QString out, err;
};

// Runs a program to its end, at most timeoutMs.
Finished run(const QString &program, const QStringList &args, int timeoutMs,
        const QProcessEnvironment &env = QProcessEnvironment::systemEnvironment())
{
    QProcess p;
    p.setProcessEnvironment(env);
    p.start(program, args);
    Finished r;
    if (!p.waitForFinished(timeoutMs)) {
        p.kill();
        p.waitForFinished(2000);
        r.err = "timed out";
        return r;
    }
    r.code = p.exitCode();
    r.out = QString::fromUtf8(p.readAllStandardOutput());
    r.err = QString::fromUtf8(p.readAllStandardError());
    return r;
}

QString writeFile(const QTemporaryDir &dir, const QString &name, const QByteArray &text)
{
    QFile f(dir.filePath(name));
    EXPECT_TRUE(f.open(QIODevice::WriteOnly));
    f.write(text);
    return f.fileName();
}

TEST(BridgeCommand, RefusesABadTagFileNamingTheEntry)
{
    QTemporaryDir dir;
    const QString tags = writeFile(dir, "tags.json", R"([{"name": "a", "address": "D1", "type": "int16"},
                                                        {"name": "b", "address": "D2", "type": "bool"}])");
    const Finished r = run(KQ71_CLI_FILE, {"bridge", "--mqtt", "127.0.0.1:1", "--root", "r", "--tags", tags}, 20000);
    EXPECT_EQ(r.code, 64);
    EXPECT_TRUE(r.err.contains("tag 2 (b): bool needs a bit")) << qPrintable(r.err);
    // The password never comes from the command line.
    EXPECT_EQ(run(KQ71_CLI_FILE, {"bridge", "--mqtt-password", "x"}, 20000).code, 64);
}

// MQTT 3.1.1 here; the other tests speak 5.
TEST(BridgeCommand, ValuesAndSetsThroughMosquittoClients)
{
    BrokerConfig config;
    config.password = true;
    TestBroker broker(config);
    QString error;
    ASSERT_TRUE(broker.start(&error)) << qPrintable(error);
    QTemporaryDir dir;
    const QString tags = writeFile(dir, "tags.json", R"([{"name": "speed", "address": "D100", "type": "int16",
                                                         "writable": true}])");
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("KQ71_MQTT_PASSWORD", "secret");
    QProcess bridge;
    bridge.setProcessEnvironment(env);
    bridge.start(KQ71_CLI_FILE, {"bridge", "--mqtt", QString("127.0.0.1:%1").arg(broker.port()), "--root", "cli/t",
                                 "--tags", tags, "--mqtt-user", "plc", "--seconds", "8", "--mqtt-v311"});
    ASSERT_TRUE(bridge.waitForStarted(10000));

    const QStringList login{"-h", "127.0.0.1", "-p", QString::number(broker.port()), "-u", "plc", "-P", "secret"};
    // The retained value, once the bridge has published it.
    Finished sub = run("mosquitto_sub", login + QStringList{"-t", "cli/t/tag/speed", "-C", "1", "-W", "6"}, 10000);
    EXPECT_EQ(sub.out.trimmed(), "0") << qPrintable(sub.err);

    QProcess result;
    result.start("mosquitto_sub", login + QStringList{"-t", "cli/t/tag/speed/set/result", "-C", "1", "-W", "6"});
    ASSERT_TRUE(result.waitForStarted(5000));
    QProcess::execute("sleep", {"0.3"});  // let it subscribe
    EXPECT_EQ(run("mosquitto_pub", login + QStringList{"-t", "cli/t/tag/speed/set", "-q", "1", "-m",
                                                       R"({"value": -3, "id": "x"})"},
                  10000)
                  .code,
              0);
    ASSERT_TRUE(result.waitForFinished(10000));
    EXPECT_EQ(QString::fromUtf8(result.readAllStandardOutput()).trimmed(), R"({"id":"x","ok":true,"value":-3})");
    sub = run("mosquitto_sub", login + QStringList{"-t", "cli/t/tag/speed", "-C", "1", "-W", "6"}, 10000);
    EXPECT_EQ(sub.out.trimmed(), "-3");

    ASSERT_TRUE(bridge.waitForFinished(20000));
    EXPECT_EQ(bridge.exitCode(), 0) << bridge.readAllStandardError().constData();
    sub = run("mosquitto_sub", login + QStringList{"-t", "cli/t/status", "-C", "1", "-W", "6"}, 10000);
    EXPECT_EQ(sub.out.trimmed(), "offline");
}

} // namespace
