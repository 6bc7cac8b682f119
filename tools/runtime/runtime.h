// A stand-in for the panel runtime: owns the memory the driver is handed,
// receives its reports, and runs the exchange over a link.
#ifndef KQ71_RUNTIME_RUNTIME_H
#define KQ71_RUNTIME_RUNTIME_H

#include "driver_library.h"
#include "link.h"

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QString>
#include <QtCore/QVector>

#include <functional>
#include <vector>

namespace kq71rt {

struct RuntimeOptions {
    int deviceId = 1;
    bool cacheOnlyWrites = false;
    int retries = 3;
    int gap = 16;
    int timeoutMs = 200;
    int recipeBytes = 64 * 1024;
};

// One report of the value-change callback.
struct ChangeReport {
    int deviceId = 0;
    int station = 0;
    QString regName;
    int address = 0;
};

// One turn of the loop: the frame that went out and how the driver took the
// reply.
struct Exchange {
    bool sent = false;  // false: the driver had nothing to send
    int result = 0;     // intf_dealRcvFrame: 1 done, 8 retry, 2 given up, 0 nothing pending
    int jobId = 0;
    int station = 0;
    QString regName;
    int address = 0;
    int length = 0;
    bool write = false;  // a write frame (its reply carries no items)
    QByteArray request, reply;
    int expected = 0;
    QString errorText;  // the driver's text for the reply
    QString diagnosis;  // what the runtime saw on the line

    // The driver's text, with the runtime's reading of a bad reply.
    QString describe() const;
};

struct GivenUpJob {
    QString errorText;
    QString diagnosis;
    bool write = false;
};

struct RuntimeStats {
    quint64 framesSent = 0;
    quint64 goodReplies = 0;
    quint64 retries = 0;  // results 8
    quint64 givenUp = 0;  // results 2
    QString lastError;
    QVector<GivenUpJob> givenUpJobs;  // the latest ones, oldest first
    qint64 clockUs = 0;
    qint64 wireTimeUs = 0;

    double framesPerSecond() const { return clockUs > 0 ? framesSent * 1e6 / double(clockUs) : 0.0; }
};

enum class RecipeDirection { Write, Read };

class Runtime {
public:
    // The driver and the link must outlive the runtime. One runtime at a time
    // per process: the driver has one callback.
    Runtime(DriverLibrary &driver, Link &link, const RuntimeOptions &options = RuntimeOptions());
    ~Runtime();
    Runtime(const Runtime &) = delete;
    Runtime &operator=(const Runtime &) = delete;

    // Registers the callback and configures the driver (clearing its jobs and
    // cache); lowers both recipe flags.
    void start();
    QString propertyText() const;

    int watch(const QList<KEY_ADDRESS> &keys);
    void conditionRead(const KEY_ADDRESS &key, int id);
    // Values in the driver's byte order: bits one byte each, words low byte
    // first, 32-bit values as two such words, low word first. The length is in
    // bits or 16-bit words.
    void write(int station, const QString &regName, int address, int length, const QByteArray &values, int id);
    QByteArray read(int station, const QString &regName, int address, int length);

    int setRecipe(const QVector<_RCP_VAR_PRO> &items);
    void startRecipe(RecipeDirection direction);
    bool recipeRunning(RecipeDirection direction) const;
    unsigned char *recipeBuffer() { return recipe_.data(); }
    int recipeBufferSize() const { return int(recipe_.size()); }
    unsigned char *sharedMemory() { return shared_.data(); }

    // One exchange: ask for a frame, send it, collect the reply, hand it in.
    Exchange step();
    // Whether the driver has nothing left to send. One empty answer is not
    // enough: after a burst of writes or condition reads with no cyclic plan
    // the driver answers once with nothing and takes the next job on the
    // following call.
    bool drained() const { return idleStreak_ >= 2; }
    // Steps until done() holds or maxSteps exchanges have been made; idle
    // calls (nothing to send) count too. Returns whether done() held.
    bool runUntil(const std::function<bool()> &done, int maxSteps);

    // Reports from the callback, taken in order of arrival.
    QVector<ChangeReport> takeReports();
    // Ends of condition-read batches: 0 read, -1 given up.
    QVector<int> takeBatchEnds();
    // Recipe buffer words that a recipe read stored.
    QVector<int> takeRecipeWords();

    const RuntimeStats &stats() const { return stats_; }
    Link &link() { return link_; }
    DriverLibrary &driver() { return driver_; }
    const RuntimeOptions &options() const { return options_; }

private:
    static void onValueChange(int deviceId, int station, const QString &regName, int address);
    void report(int deviceId, int station, const QString &regName, int address);
    static QString diagnose(const QByteArray &reply, int expected, int timeoutMs, const QString &linkError);

    DriverLibrary &driver_;
    Link &link_;
    RuntimeOptions options_;
    std::vector<unsigned char> shared_;
    std::vector<unsigned char> recipe_;
    mutable QMutex sharedMutex_;  // handed to the driver: guards the recipe flags

    QMutex reportMutex_;
    QVector<ChangeReport> reports_;
    QVector<int> batchEnds_;
    QVector<int> recipeWords_;

    RuntimeStats stats_;
    int idleStreak_ = 0;
};

} // namespace kq71rt

#endif
