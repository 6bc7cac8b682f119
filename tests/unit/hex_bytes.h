// Byte strings written as in a line monitor: "01 03 43 9C".
#ifndef TEST_HEX_BYTES_H
#define TEST_HEX_BYTES_H

#include <QtCore/QByteArray>

#include <cstdio>
#include <string>
#include <vector>

// Characters other than hex digits (the spaces) are skipped.
inline std::vector<unsigned char> hexBytes(const char *text)
{
    const QByteArray b = QByteArray::fromHex(QByteArray(text));
    return std::vector<unsigned char>(b.begin(), b.end());
}

inline std::string hexText(const unsigned char *bytes, int count)
{
    std::string out;
    char buf[4];
    for (int i = 0; i < count; ++i) {
        std::snprintf(buf, sizeof buf, i ? " %02X" : "%02X", bytes[i]);
        out += buf;
    }
    return out;
}

#endif
