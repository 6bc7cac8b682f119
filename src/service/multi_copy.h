// Address series for copied screen objects.
#ifndef SERVICE_MULTI_COPY_H
#define SERVICE_MULTI_COPY_H

#include <QtCore/QString>
#include <QtCore/QVector>

int multiCp(const QString &regName, const QString &format, int start, int count, int interval,
            QVector<QString> &texts, QVector<int> &addresses, int maxAddress, const QString &maxText);

#endif
