#include "debug_line.h"

#include <QtCore/QtGlobal>

#if QT_VERSION >= 0x050000
#include <QtCore/QLoggingCategory>
#endif

QuotedDebugLine::QuotedDebugLine() : len_(1)
{
    buf_[0] = '"';
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

// The pieces are a few bytes each and a planning call writes a line or two per
// key: the appends copy byte by byte and keep the length in a local, which the
// byte stores into buf_ would otherwise force back to memory each time.

QuotedDebugLine &QuotedDebugLine::text(const char *s)
{
    // Two bytes stay free for the closing quote and blank.
    int n = len_;
    while (*s && n < CAPACITY - 3)
        buf_[n++] = *s++;
    len_ = n;
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
    int len = len_;
    while (k && len < CAPACITY - 3)
        buf_[len++] = digits[--k];
    len_ = len;
    return *this;
}

QuotedDebugLine &QuotedDebugLine::name(const QString &s)
{
    const QChar *c = s.constData();
    const int size = s.size();
    int len = len_;
    for (int i = 0; i < size && len < CAPACITY - 3; ++i)
        buf_[len++] = c[i].unicode() < 256 ? char(c[i].unicode()) : '?';
    len_ = len;
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
