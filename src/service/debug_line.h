// Diagnostic lines on Qt's debug channel, for the paths that write one per
// watched key. The text is put together in a fixed buffer and handed to the
// message handler as one debug message, reading as the debug stream writes a
// string: in double quotes, then a blank. When debug output is switched off
// (QT_NO_DEBUG_OUTPUT, or the default category's debug rule) nothing is built.
#ifndef SERVICE_DEBUG_LINE_H
#define SERVICE_DEBUG_LINE_H

#include <QtCore/QString>

class QuotedDebugLine {
public:
    QuotedDebugLine();
    static bool enabled();

    QuotedDebugLine &text(const char *s);
    QuotedDebugLine &number(int n);
    QuotedDebugLine &name(const QString &s); // Latin-1, cut at the buffer's end
    void send();

private:
    enum { CAPACITY = 320 };
    char buf_[CAPACITY];
    int len_;
};

#endif
