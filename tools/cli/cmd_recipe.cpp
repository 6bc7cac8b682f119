// recipe write|read FILE: a recipe transfer through the runtime's recipe
// buffer and flag bytes. CSV lines: reg,address,length,bufOffset,value...
// `read` prints the CSV with the values read (or writes it to -o FILE).
// (length in 16-bit words, two per 32-bit value; bufOffset in words, empty
// for the next free place; one value per word, or per 32-bit value).
#include "commands.h"
#include "output.h"

#include <QtCore/QFile>
#include <QtCore/QJsonArray>
#include <QtCore/QSaveFile>

#include <algorithm>

namespace kq71cli {

using namespace kq71rt;

namespace {

struct RecipeItem {
    int line = 0;
    TypedAddress target;
    int words = 0;
    int bufOffset = -1;
    QVector<qint64> values;
};

int valuesPerItem(const RecipeItem &i) { return i.target.kind == UnitKind::DoubleWord ? i.words / 2 : i.words; }

bool loadRecipe(Session &s, const QString &path, bool needValues, QVector<RecipeItem> *items)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly | QIODevice::Text)) {
        printError(s.options.json, QString("cannot read %1: %2").arg(path, f.errorString()));
        return false;
    }
    const int bufferWords = s.runtime->recipeBufferSize() / 2;
    bool ok = true;
    int lineNo = 0;
    while (!f.atEnd()) {
        ++lineNo;
        const QString line = QString::fromUtf8(f.readLine()).trimmed();
        if (line.isEmpty() || line.startsWith('#'))
            continue;
        const QStringList fields = line.split(',');
        auto fail = [&](const QString &why) {
            printError(s.options.json, QString("%1:%2: %3").arg(path).arg(lineNo).arg(why));
            ok = false;
        };
        if (fields.size() < 3) {
            fail("expected reg,address,length[,bufOffset[,value...]]");
            continue;
        }
        RecipeItem item;
        item.line = lineNo;
        bool numOk = false;
        item.words = fields[2].trimmed().toInt(&numOk);
        if (!numOk || item.words < 1) {
            fail(QString("length \"%1\" must be a whole number of words, at least 1").arg(fields[2].trimmed()));
            continue;
        }
        QString error;
        if (!parseAddress(fields[0].trimmed() + fields[1].trimmed(), s.catalogue, &item.target, &error)) {
            fail(error);
            continue;
        }
        if (item.target.kind == UnitKind::Bit) {
            fail(QString("%1 is a bit register: recipes hold 16-bit and 32-bit registers").arg(item.target.regName));
            continue;
        }
        if (item.target.kind == UnitKind::DoubleWord && item.words % 2) {
            fail("a 32-bit register takes two words per value: the length must be even");
            continue;
        }
        item.target.count = valuesPerItem(item);
        const int code = checkAddress(s.driver, &item.target, ACCESS_WRITE);
        if (code != 0) {
            fail(QString("%1%2: %3")
                     .arg(item.target.regName, item.target.addrText, checkFailureText(code, item.target, s.catalogue)));
            continue;
        }
        const QString offset = fields.value(3).trimmed();
        if (!offset.isEmpty()) {
            item.bufOffset = offset.toInt(&numOk);
            if (!numOk || item.bufOffset < 0 || item.bufOffset + item.words > bufferWords) {
                fail(QString("bufOffset \"%1\" must lie within the recipe buffer (0..%2 words)")
                         .arg(offset)
                         .arg(bufferWords - item.words));
                continue;
            }
        }
        for (int i = 4; i < fields.size(); ++i) {
            const qint64 v = fields[i].trimmed().toLongLong(&numOk, 0);
            const bool dword = item.target.kind == UnitKind::DoubleWord;
            if (!numOk || v < (dword ? -2147483648LL : -32768) || v > (dword ? 4294967295LL : 65535)) {
                fail(QString("value \"%1\" does not fit a %2 register").arg(fields[i].trimmed(),
                                                                            dword ? "32-bit" : "16-bit"));
                break;
            }
            item.values << v;
        }
        if (needValues && item.values.size() != valuesPerItem(item)) {
            fail(QString("%1 values needed, %2 given").arg(valuesPerItem(item)).arg(item.values.size()));
            continue;
        }
        items->append(item);
    }
    if (ok && items->isEmpty()) {
        printError(s.options.json, QString("%1 holds no recipe items").arg(path));
        return false;
    }
    return ok;
}

// Items without a place get one after the highest taken word, in the driver's
// own order (register, then address), so items that the driver merges into
// one block stand back to back as its writes expect.
void placeItems(const QList<RegisterInfo> &catalogue, QVector<RecipeItem> &items)
{
    int next = 0;
    for (const RecipeItem &i : items)
        if (i.bufOffset >= 0)
            next = qMax(next, i.bufOffset + i.words);
    QVector<RecipeItem *> open;
    for (RecipeItem &i : items)
        if (i.bufOffset < 0)
            open << &i;
    auto regIndex = [&](const QString &name) {
        for (int k = 0; k < catalogue.size(); ++k)
            if (catalogue[k].name == name)
                return k;
        return int(catalogue.size());
    };
    std::stable_sort(open.begin(), open.end(), [&](const RecipeItem *a, const RecipeItem *b) {
        const int ra = regIndex(a->target.regName), rb = regIndex(b->target.regName);
        return ra != rb ? ra < rb : a->target.address < b->target.address;
    });
    for (RecipeItem *i : open) {
        i->bufOffset = next;
        next += i->words;
    }
}

void putWord(unsigned char *buf, int word, quint16 v)
{
    buf[2 * word] = v & 0xFF;
    buf[2 * word + 1] = v >> 8;
}

quint16 getWord(const unsigned char *buf, int word) { return quint16(buf[2 * word] | buf[2 * word + 1] << 8); }

QString itemText(const RecipeItem &i)
{
    QStringList f{i.target.regName, i.target.addrText, QString::number(i.words), QString::number(i.bufOffset)};
    for (qint64 v : i.values)
        f << QString::number(v);
    return f.join(',');
}

} // namespace

int cmdRecipe(Session &s)
{
    const QStringList &a = s.options.args;
    if (a.size() != 2 || (a[0] != "read" && a[0] != "write")) {
        printError(s.options.json, "recipe: use kq71 recipe read FILE [-o OUT] or kq71 recipe write FILE");
        return EXIT_USAGE;
    }
    const bool writing = a[0] == "write";
    QVector<RecipeItem> items;
    if (!loadRecipe(s, a[1], writing, &items))
        return EXIT_FAILED;
    placeItems(s.catalogue, items);

    Runtime &rt = *s.runtime;
    unsigned char *buf = rt.recipeBuffer();
    QVector<_RCP_VAR_PRO> rcp;
    for (const RecipeItem &i : items) {
        // The driver reads one value back per 32-bit item: hand it one item per value.
        const bool dword = i.target.kind == UnitKind::DoubleWord;
        for (int k = 0; k < (dword ? i.words / 2 : 1); ++k) {
            _RCP_VAR_PRO r;
            r.deviceId = s.options.deviceId;
            r.station = s.options.station;
            r.regName = i.target.regName;
            r.address = i.target.address + k;
            r.length = dword ? 2 : i.words;
            r.bufOffset = i.bufOffset + 2 * k;
            rcp << r;
        }
        for (int k = 0; k < i.words; ++k)
            putWord(buf, i.bufOffset + k, 0);
        if (!writing)
            continue;
        for (int k = 0; k < i.values.size(); ++k) {
            const quint32 v = quint32(i.values[k]);
            if (i.target.kind == UnitKind::DoubleWord) {
                putWord(buf, i.bufOffset + 2 * k, quint16(v));
                putWord(buf, i.bufOffset + 2 * k + 1, quint16(v >> 16));
            } else {
                putWord(buf, i.bufOffset + k, quint16(v));
            }
        }
    }
    if (rt.setRecipe(rcp) != rcp.size()) {
        printError(s.options.json, "the driver did not take the recipe items");
        return EXIT_FAILED;
    }

    const RecipeDirection dir = writing ? RecipeDirection::Write : RecipeDirection::Read;
    QString failure;
    rt.startRecipe(dir);
    Progress progress(s.options.json, QString("recipe %1, requests").arg(a[0]), 0);
    int requests = 0;
    const bool ended = s.run([&] { return !rt.recipeRunning(dir); }, s.worstCaseMs(4 * items.size() + 4),
                             [&](const Exchange &ex) {
                                 if (ex.result == 1 || ex.result == 2)
                                     progress.update(++requests);
                                 if (ex.result == 2 && failure.isEmpty())
                                     failure = ex.describe();
                             });
    progress.finish();
    if (!ended && failure.isEmpty())
        failure = interrupted() ? "interrupted" : "the transfer did not end in time";
    const int words = rt.takeRecipeWords().size();
    if (!failure.isEmpty()) {
        printError(s.options.json, QString("recipe %1 failed: %2").arg(a[0], failure));
        return EXIT_FAILED;
    }
    if (writing) {
        if (s.options.json)
            printJson(QJsonObject{{"type", "recipe"}, {"direction", "write"}, {"items", items.size()}, {"ok", true}});
        else
            printLine(QString("recipe written: %1 items").arg(items.size()));
        return EXIT_OK;
    }

    QStringList csv{"# reg,address,length,bufOffset,value..."};
    for (RecipeItem &i : items) {
        i.values.clear();
        const int n = valuesPerItem(i);
        for (int k = 0; k < n; ++k) {
            if (i.target.kind == UnitKind::DoubleWord)
                i.values << qint64(quint32(getWord(buf, i.bufOffset + 2 * k)) |
                                   quint32(getWord(buf, i.bufOffset + 2 * k + 1)) << 16);
            else
                i.values << getWord(buf, i.bufOffset + k);
        }
        csv << itemText(i);
        if (s.options.json) {
            QJsonArray values;
            for (qint64 v : i.values)
                values.append(double(v));
            printJson(QJsonObject{{"type", "recipe"}, {"reg", i.target.regName}, {"address", i.target.address},
                                  {"length", i.words}, {"bufOffset", i.bufOffset}, {"values", values}});
        }
    }
    // The recipe file is only read: the values go where -o says, to stdout
    // by default, and with --json only as the JSON lines above.
    const QString out = s.options.output.isEmpty() ? QString("-") : s.options.output;
    if (out == "-") {
        if (!s.options.json)
            for (const QString &l : csv)
                printLine(l);
    } else {
        QSaveFile f(out);
        if (!f.open(QIODevice::WriteOnly | QIODevice::Text) || f.write((csv.join('\n') + '\n').toUtf8()) < 0 ||
            !f.commit()) {
            printError(s.options.json, QString("cannot write %1: %2").arg(out, f.errorString()));
            return EXIT_FAILED;
        }
        if (!s.options.json)
            printLine(QString("recipe read: %1 items, %2 words, written to %3").arg(items.size()).arg(words).arg(out));
    }
    return EXIT_OK;
}

} // namespace kq71cli
