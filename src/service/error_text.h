// The text that names the job a reply answers.
#ifndef SERVICE_ERROR_TEXT_H
#define SERVICE_ERROR_TEXT_H

#include <QtCore/QByteArray>
#include <QtCore/QString>

QString getErrorInfo(const QByteArray &reply);

#endif
