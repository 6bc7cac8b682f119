#include "runtime.h"

#include "plc_map.h"

#include <QtCore/QMutexLocker>

#include <cstring>

namespace kq71rt {

namespace {

// The driver's callback is a plain function: it reaches the one runtime
// through this pointer.
Runtime *current = nullptr;

const int KEEP_GIVEN_UP = 100;

// Bytes intf_getData writes for a range, by the register's unit.
int valueBytes(const QString &regName, int length)
{
    if (length <= 0)
        return 0;
    switch (unitKindOf(regName)) {
    case UnitKind::Bit:
        return length;
    case UnitKind::DoubleWord:
        return 4 * (length / 2);
    default:
        return 2 * length;
    }
}

} // namespace

QString Exchange::describe() const
{
    return diagnosis.isEmpty() ? errorText : errorText + ": " + diagnosis;
}

Runtime::Runtime(DriverLibrary &driver, Link &link, const RuntimeOptions &options)
    : driver_(driver), link_(link), options_(options), shared_(KQ71_SHARED_MEM_MIN + 64, 0),
      recipe_(size_t(qMax(options.recipeBytes, 2)), 0)
{
}

Runtime::~Runtime()
{
    if (current == this) {
        driver_.setAddrValueChangeCallBack(nullptr);
        current = nullptr;
    }
}

QString Runtime::propertyText() const
{
    // deviceId # cache-only writes # (unused) # retry limit # merge gap
    return QString("%1#%2#0#%3#%4")
        .arg(options_.deviceId)
        .arg(options_.cacheOnlyWrites ? 1 : 0)
        .arg(options_.retries)
        .arg(options_.gap);
}

void Runtime::start()
{
    {
        QMutexLocker lock(&sharedMutex_);
        shared_[KQ71_RECIPE_WRITE_FLAG] = 0;
        shared_[KQ71_RECIPE_READ_FLAG] = 0;
    }
    current = this;
    driver_.setAddrValueChangeCallBack(&Runtime::onValueChange);
    int status = 0;
    const QByteArray property = propertyText().toLatin1();
    driver_.initProperty(shared_.data(), nullptr, recipe_.data(), &status, property.constData(), &sharedMutex_);
}

void Runtime::onValueChange(int deviceId, int station, const QString &regName, int address)
{
    if (current)
        current->report(deviceId, station, regName, address);
}

void Runtime::report(int deviceId, int station, const QString &regName, int address)
{
    QMutexLocker lock(&reportMutex_);
    if (station == -1 && regName == "-1")
        batchEnds_.append(address);
    else if (station == -1 && regName == "RWI")
        recipeWords_.append(address);
    else
        reports_.append(ChangeReport{deviceId, station, regName, address});
}

QVector<ChangeReport> Runtime::takeReports()
{
    QMutexLocker lock(&reportMutex_);
    QVector<ChangeReport> out;
    out.swap(reports_);
    return out;
}

QVector<int> Runtime::takeBatchEnds()
{
    QMutexLocker lock(&reportMutex_);
    QVector<int> out;
    out.swap(batchEnds_);
    return out;
}

QVector<int> Runtime::takeRecipeWords()
{
    QMutexLocker lock(&reportMutex_);
    QVector<int> out;
    out.swap(recipeWords_);
    return out;
}

int Runtime::watch(const QList<KEY_ADDRESS> &keys)
{
    QList<KEY_ADDRESS> copy = keys;
    return driver_.addrMerge(&copy);
}

void Runtime::conditionRead(const KEY_ADDRESS &key, int id)
{
    KEY_ADDRESS copy = key;
    driver_.addConditionRead(&copy, id);
}

void Runtime::write(int station, const QString &regName, int address, int length, const QByteArray &values, int id)
{
    // The driver reads as many bytes as the length asks for: never let it
    // run past what the caller gave.
    QByteArray buf = values;
    const int need = qMax(4 * length, 0) + 4;
    if (buf.size() < need)
        buf.append(QByteArray(need - buf.size(), '\0'));
    QString reg = regName;
    driver_.setData(station, &reg, address, length, reinterpret_cast<unsigned char *>(buf.data()), id);
}

QByteArray Runtime::read(int station, const QString &regName, int address, int length)
{
    QByteArray buf(qMax(4 * length, 0) + 4, '\0');
    QString reg = regName;
    driver_.getData(station, &reg, address, length, reinterpret_cast<unsigned char *>(buf.data()));
    buf.truncate(valueBytes(regName, length));
    return buf;
}

int Runtime::setRecipe(const QVector<_RCP_VAR_PRO> &items)
{
    QVector<_RCP_VAR_PRO> copy = items;
    return driver_.setRcpAddress(&copy);
}

void Runtime::startRecipe(RecipeDirection direction)
{
    QMutexLocker lock(&sharedMutex_);
    shared_[direction == RecipeDirection::Write ? KQ71_RECIPE_WRITE_FLAG : KQ71_RECIPE_READ_FLAG] = 1;
}

bool Runtime::recipeRunning(RecipeDirection direction) const
{
    QMutexLocker lock(&sharedMutex_);
    return shared_[direction == RecipeDirection::Write ? KQ71_RECIPE_WRITE_FLAG : KQ71_RECIPE_READ_FLAG] == 1;
}

QString Runtime::diagnose(const QByteArray &reply, int expected, int timeoutMs, const QString &linkError)
{
    if (!linkError.isEmpty())
        return linkError;
    if (reply.isEmpty())
        return QString("no reply within %1 ms").arg(timeoutMs);
    const auto byte = [&](int i) { return static_cast<unsigned char>(reply[i]); };
    if (reply.size() == 5 && (byte(1) & 0x80))
        return QString("exception %1 from the PLC for function 0x%2")
            .arg(byte(2))
            .arg(byte(1) & 0x7F, 2, 16, QChar('0'));
    if (reply.size() != expected)
        return QString("reply of %1 bytes, %2 expected").arg(reply.size()).arg(expected);
    if (rtuCrc(reply.constData(), reply.size()) != 0)
        return "bad checksum";
    return "reply refused";
}

Exchange Runtime::step()
{
    Exchange ex;
    FRAME_PRO frame;
    if (driver_.getSendFrame(&frame) != 1) {
        ++idleStreak_;
        stats_.clockUs = link_.clockUs();
        return ex;
    }
    idleStreak_ = 0;
    ex.sent = true;
    ex.jobId = frame.var.id;
    ex.station = frame.var.station;
    ex.regName = frame.var.regName;
    ex.address = frame.var.address;
    ex.length = frame.var.length;
    ex.write = frame.itemCount == 0;
    ex.expected = frame.recvLen;
    const int sendLen = qBound(0, frame.sendLen, int(KQ71_FRAME_BYTES));
    ex.request = QByteArray(reinterpret_cast<const char *>(frame.frame), sendLen);

    ex.reply = link_.exchange(ex.request, qBound(0, frame.recvLen, 4096), options_.timeoutMs);
    const QString linkError = link_.linkError();

    QByteArray reply = ex.reply;
    QString errorText;
    ex.result = driver_.dealRcvFrame(&reply, &errorText);
    ex.errorText = errorText;

    ++stats_.framesSent;
    switch (ex.result) {
    case 1:
        ++stats_.goodReplies;
        break;
    case 8:
        ++stats_.retries;
        ex.diagnosis = diagnose(ex.reply, ex.expected, options_.timeoutMs, linkError);
        stats_.lastError = ex.describe();
        break;
    case 2:
        ++stats_.givenUp;
        ex.diagnosis = diagnose(ex.reply, ex.expected, options_.timeoutMs, linkError);
        stats_.lastError = ex.describe();
        stats_.givenUpJobs.append(GivenUpJob{ex.errorText, ex.diagnosis, ex.write});
        if (stats_.givenUpJobs.size() > KEEP_GIVEN_UP)
            stats_.givenUpJobs.removeFirst();
        break;
    default:
        break;
    }
    stats_.clockUs = link_.clockUs();
    stats_.wireTimeUs = link_.wireTimeUs();
    return ex;
}

bool Runtime::runUntil(const std::function<bool()> &done, int maxSteps)
{
    for (int i = 0; i < maxSteps; ++i) {
        if (done())
            return true;
        if (!step().sent)
            link_.idle(1000);
    }
    return done();
}

} // namespace kq71rt
