#include "debug_line.h"

#include <QtCore/QtGlobal>

#include <string.h>
#if QT_VERSION >= 0x050000
#include <QtCore/QLoggingCategory>
#endif

QuotedDebugLine::QuotedDebugLine() : len_(0)
{
    text("\"");
}

bool QuotedDebugLine::enabled()
{
#if defined(QT_NO_DEBUG_OUTPUT)
    return false;
#elif QT_VERSION >= 0x050000
    return QLoggingCategory::defaultCategory()->isDebugEnabled();
#else
    return true;
#endif
}

QuotedDebugLine &QuotedDebugLine::text(const char *s)
{
    // Two bytes stay free for the closing quote and blank.
    const size_t room = size_t(CAPACITY - 3 - len_);
    const size_t n = strnlen(s, room);
    memcpy(buf_ + len_, s, n);
    len_ += int(n);
    return *this;
}

QuotedDebugLine &QuotedDebugLine::number(int n)
{
    char digits[12];
    int k = 0;
    unsigned v = n < 0 ? 0u - unsigned(n) : unsigned(n);
    do {
        digits[k++] = char('0' + v % 10);
        v /= 10;
    } while (v);
    if (n < 0)
        digits[k++] = '-';
    while (k && len_ < CAPACITY - 3)
        buf_[len_++] = digits[--k];
    return *this;
}

QuotedDebugLine &QuotedDebugLine::name(const QString &s)
{
    const QChar *c = s.constData();
    for (int i = 0; i < s.size() && len_ < CAPACITY - 3; ++i)
        buf_[len_++] = c[i].unicode() < 256 ? char(c[i].unicode()) : '?';
    return *this;
}

void QuotedDebugLine::send()
{
    buf_[len_++] = '"';
    buf_[len_++] = ' ';
    buf_[len_] = '\0';
#if QT_VERSION >= 0x050000
    // One string per thread, reused: no allocation per line unless a handler
    // keeps the text (then it detaches).
    static thread_local QString line;
    line.resize(len_);
    QChar *d = line.data();
    for (int i = 0; i < len_; ++i)
        d[i] = QLatin1Char(buf_[i]);
    qt_message_output(QtDebugMsg, QMessageLogContext(), line);
#else
    qt_message_output(QtDebugMsg, buf_);
#endif
}
