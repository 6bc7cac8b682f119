// What the tests need from Qt where Qt 4 and Qt 5 differ, in one form for both.
#ifndef KQ71_TESTS_QT_COMPAT_H
#define KQ71_TESTS_QT_COMPAT_H

#include <QtCore/QString>
#include <QtCore/QtGlobal>

#include <cstdio>
#include <string>

namespace kq71test {

// "01 03 43 9C": upper-case hex, bytes separated by blanks.
inline std::string hexText(const unsigned char *bytes, int count)
{
    std::string out;
    char two[4];
    for (int i = 0; i < count; ++i) {
        std::snprintf(two, sizeof two, "%02X", bytes[i]);
        if (i)
            out += ' ';
        out += two;
    }
    return out;
}

#if QT_VERSION >= 0x050E00
const Qt::SplitBehavior SKIP_EMPTY_PARTS = Qt::SkipEmptyParts;
#else
const QString::SplitBehavior SKIP_EMPTY_PARTS = QString::SkipEmptyParts;
#endif

// Qt 4 and Qt 5 install message handlers of different types; the tests route
// Qt's messages to a sink of one type through this, on either Qt.
typedef void (*MessageSink)(QtMsgType type, const QString &message);

inline MessageSink &currentSink()
{
    static MessageSink sink = nullptr;
    return sink;
}

#if QT_VERSION >= 0x050000
inline void forwardMessage(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    currentSink()(type, message);
}
#else
inline void forwardMessage(QtMsgType type, const char *message)
{
    currentSink()(type, QString::fromLocal8Bit(message));
}
#endif

// Sends Qt's messages to sink (nullptr: Qt's own output); returns the sink before.
inline MessageSink installMessageSink(MessageSink sink)
{
    const MessageSink previous = currentSink();
    currentSink() = sink;
#if QT_VERSION >= 0x050000
    qInstallMessageHandler(sink ? forwardMessage : nullptr);
#else
    qInstallMsgHandler(sink ? forwardMessage : 0);
#endif
    return previous;
}

} // namespace kq71test

#endif
