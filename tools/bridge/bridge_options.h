// The bridge command's options, added to the command line's own parser.
#ifndef KQ71_BRIDGE_BRIDGE_OPTIONS_H
#define KQ71_BRIDGE_BRIDGE_OPTIONS_H

#include <QtCore/QCommandLineOption>
#include <QtCore/QCommandLineParser>
#include <QtCore/QString>

namespace kq71bridge {

struct BridgeSettings {
    QString host;
    int port = 1883;
    QString root, tagsFile;
    QString user, passwordFile;
    QString caFile, certFile, keyFile;
    QString clientId;
    bool mqtt311 = false;
    int valueQos = 0;
    int republishS = 300;
    int offlineAfter = 3;
    int writeQueue = 64;
    int maxPacket = 0;  // 0: the protocol's limit, or what the broker announces
};

// The help text of the bridge's options.
extern const char BRIDGE_USAGE[];

class BridgeCommandLine {
public:
    BridgeCommandLine();
    void add(QCommandLineParser &parser) const;
    // False with the reason when a value is bad.
    bool read(const QCommandLineParser &parser, BridgeSettings *settings, QString *why) const;

private:
    QCommandLineOption mqtt_, root_, tags_, user_, passwordFile_, ca_, cert_, key_, clientId_, mqtt311_, valueQos_,
        republish_, offlineAfter_, writeQueue_, maxPacket_;
};

} // namespace kq71bridge

#endif
