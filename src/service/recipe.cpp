// Recipe transfers: the runtime's recipe items become merged blocks, and each
// block becomes one job that moves values between the recipe buffer and the PLC.
#include "protocol.h"
#include "recipe_layout.h"
#include "register_table.h"

#include <QtCore/QMutexLocker>

#include <algorithm>
#include <string.h>
#include <vector>

RecipeWindow recipeItemWindow(const _RCP_VAR_PRO &item)
{
    const int idx = getIndexFromRegName(item.regName);
    int units = item.length;
    if (idx >= 0 && rowKind(idx) != 1 && rowWidth(idx) > 0)
        units = int(item.length * (16.0 / rowWidth(idx)));
    return RecipeWindow(item.address, units);
}

bool storeRecipeWord(qint64 word, unsigned char low, unsigned char high)
{
    if (!driver.recipeBuf || word < 0 || word > 0x3FFFFFFF)
        return false;
    driver.recipeBuf[2 * word] = low;
    driver.recipeBuf[2 * word + 1] = high;
    return true;
}

bool loadRecipeWord(qint64 word, unsigned char &low, unsigned char &high)
{
    if (!driver.recipeBuf || word < 0 || word > 0x3FFFFFFF)
        return false;
    low = driver.recipeBuf[2 * word];
    high = driver.recipeBuf[2 * word + 1];
    return true;
}

bool storeRecipeBit(qint64 word, int bit, int value)
{
    unsigned char low, high;
    if (!loadRecipeWord(word, low, high))
        return false;
    unsigned v = unsigned(low) | (unsigned(high) << 8);
    v = unsigned(_setBitValue(int(v), bit, value));
    return storeRecipeWord(word, v & 0xFF, (v >> 8) & 0xFF);
}

int recipeFlag(int offset, bool locked)
{
    if (!driver.sharedMem)
        return 0;
    if (locked && driver.sharedMemMutex) {
        QMutexLocker guard(driver.sharedMemMutex);
        return driver.sharedMem[offset];
    }
    return driver.sharedMem[offset];
}

void setRecipeFlagLocked(int offset, unsigned char value)
{
    if (!driver.sharedMem)
        return;
    if (driver.sharedMemMutex) {
        QMutexLocker guard(driver.sharedMemMutex);
        driver.sharedMem[offset] = value;
    } else {
        driver.sharedMem[offset] = value;
    }
}

namespace {

bool isInterleavedRegister(const QString &name)
{
    return name == QLatin1String("V") || name == QLatin1String("Z");
}

// Fills the job's value bytes from the recipe buffer, each unit from the
// place of the item that holds it; where items overlap, the first one wins.
// Bits stand packed 16 to a buffer word and take one data byte each; words
// take two data bytes and double words four, each word low byte first.
void fillFromRecipe(const _RCP_VAR_PRO &block, int width, VARIABLE &job)
{
    const int b = driver.rcpIndex;
    if (b < 0 || b >= driver.rcpBlockItems.size())
        return;
    const int bytesPerUnit = width == 1 ? 1 : width / 8;
    if (bytesPerUnit < 1)
        return;
    const RecipeWindow window(block.address, qMin(block.length, int(KQ71_DATA_BYTES) / bytesPerUnit));
    const QPair<int, int> items = driver.rcpBlockItems.at(b);
    const int last = qMin(items.first + items.second, driver.rcpItems.size()) - 1;
    for (int k = last; k >= items.first; --k) {
        const _RCP_VAR_PRO &item = driver.rcpItems.at(k);
        const RecipeWindow span = window.overlap(recipeItemWindow(item));
        for (int u = span.first; u < span.end(); ++u) {
            const int j = u - item.address;
            unsigned char *out = job.data + (u - block.address) * bytesPerUnit;
            if (width == 1) {
                unsigned char low, high;
                if (loadRecipeWord(qint64(item.bufOffset) + j / 16, low, high))
                    out[0] = ((unsigned(low) | (unsigned(high) << 8)) >> (j % 16)) & 1;
            } else {
                const int words = bytesPerUnit / 2;
                for (int w = 0; w < words; ++w)
                    loadRecipeWord(qint64(item.bufOffset) + qint64(j) * words + w, out[2 * w], out[2 * w + 1]);
            }
        }
    }
}

} // namespace

void rcpAddrToVar(const _RCP_VAR_PRO &block, VARIABLE &job, int isWrite)
{
    job.station = block.station;
    job.regName = block.regName;
    job.address = block.address;
    job.length = block.length;
    memset(job.data, 0, sizeof(job.data));

    const int idx = getIndexFromRegName(job.regName);
    const int width = idx >= 0 ? rowWidth(idx) : 0;
    if (isInterleavedRegister(job.regName)) {
        if (recipeFlag(KQ71_RECIPE_WRITE_FLAG, false) == 1) {
            // Interleaved registers are written one word per frame.
            fillFromRecipe(block, width, job);
            for (int i = 0; i < job.length && i < MAX_BLOCK_UNITS; ++i) {
                VARIABLE word = job;
                word.address = job.address + i;
                word.length = 1;
                memset(word.data, 0, sizeof(word.data));
                word.data[0] = job.data[2 * i];
                word.data[1] = job.data[2 * i + 1];
                getWriteFrame(word);
            }
            return;
        }
        if (!isWrite)
            return;
    } else if (!isWrite) {
        return;
    }
    if (idx >= 0)
        fillFromRecipe(block, width, job);
}

int intf_setRcpAddress(QVector<_RCP_VAR_PRO> *items)
{
    if (!items)
        return 0;
    ServiceLock lock;
    driver.rcpItems.clear();
    for (int i = 0; i < items->size(); ++i) {
        if (items->at(i).deviceId == driver.deviceId)
            driver.rcpItems.append(items->at(i));
    }
    driver.rcpBlockStarts.clear();
    driver.rcpBlockItems.clear();
    driver.rcpBlocks.clear();
    if (driver.rcpItems.isEmpty()) {
        // Nothing stale may be transferred.
        driver.rcpIndex = 0;
        return 0;
    }

    std::vector<std::pair<quint32, int> > order;
    for (int i = 0; i < driver.rcpItems.size(); ++i) {
        const _RCP_VAR_PRO &it = driver.rcpItems.at(i);
        order.push_back(std::make_pair(quint32(getRegAddressWeight(it.station, it.regName, it.address, 1)), i));
    }
    std::stable_sort(order.begin(), order.end(),
                     [](const std::pair<quint32, int> &a, const std::pair<quint32, int> &b) {
                         return a.first < b.first;
                     });
    QVector<_RCP_VAR_PRO> sorted;
    sorted.reserve(driver.rcpItems.size());
    for (size_t i = 0; i < order.size(); ++i)
        sorted.append(driver.rcpItems.at(order[i].second));
    driver.rcpItems.swap(sorted);

    QList<KEY_ADDRESS> keys;
    for (int i = 0; i < driver.rcpItems.size(); ++i) {
        const _RCP_VAR_PRO &it = driver.rcpItems.at(i);
        KEY_ADDRESS key;
        key.station = it.station;
        key.regName = it.regName;
        key.address = it.address;
        key.length = it.length;
        key.bufOffset = it.bufOffset;
        keys.append(key);
    }
    addrMerge(keys, 2);

    for (int k = 0; k < keys.size(); ++k) {
        const KEY_ADDRESS &key = keys.at(k);
        _RCP_VAR_PRO block;
        block.station = key.station;
        block.regName = key.regName;
        block.address = key.address;
        block.length = key.length;
        block.bufOffset = key.bufOffset;
        driver.rcpBlocks.append(block);
    }
    return driver.rcpItems.size();
}
