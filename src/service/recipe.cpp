// Recipe transfers: the runtime's recipe items become merged blocks, and each
// block becomes one job that moves values between the recipe buffer and the PLC.
#include "vorn_kq71_ap.h"
#include "recipe.h"
#include "addr_merge.h"
#include "data_area.h"
#include "driver_state.h"
#include "frame_queue.h"
#include "register_table.h"
#include "register_traits.h"

#include <QtCore/QMutexLocker>

#include <algorithm>
#include <string.h>
#include <vector>

RecipeWindow recipeItemWindow(const _RCP_VAR_PRO &item)
{
    const kq71::RegisterTraits t = kq71::registerTraits(item.regName);
    const qint64 units = t.known() ? t.unitsOfLength(item.length) : item.length;
    return RecipeWindow(item.address, int(units));
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

bool currentRecipeItems(int &first, int &end)
{
    const int b = driver.rcpIndex;
    if (b < 0 || b >= driver.rcpBlockItems.size())
        return false;
    const QPair<int, int> items = driver.rcpBlockItems.at(b);
    first = items.first;
    end = int(qMin<qint64>(qint64(items.first) + items.second, driver.rcpItems.size()));
    return true;
}

// The runtime's mutex is taken only with our lock let go: a runtime thread
// that holds it may be waiting for us.
int recipeFlag(int offset, bool locked)
{
    unsigned char *const mem = driver.sharedMem;
    QMutex *const mutex = driver.sharedMemMutex;
    if (!mem)
        return 0;
    if (locked && mutex) {
        ServiceUnlocked unlocked;
        QMutexLocker guard(mutex);
        return mem[offset];
    }
    return mem[offset];
}

void setRecipeFlagLocked(int offset, unsigned char value)
{
    unsigned char *const mem = driver.sharedMem;
    QMutex *const mutex = driver.sharedMemMutex;
    if (!mem)
        return;
    if (mutex) {
        ServiceUnlocked unlocked;
        QMutexLocker guard(mutex);
        mem[offset] = value;
    } else {
        mem[offset] = value;
    }
}

namespace {

// Fills the job's value bytes from the recipe buffer, each unit from the
// place of the item that holds it; where items overlap, the first one wins.
// Bits stand packed 16 to a buffer word and take one data byte each; words
// take two data bytes and double words four, each word low byte first.
void fillFromRecipe(const _RCP_VAR_PRO &block, int width, VARIABLE &job)
{
    int first, end;
    const int bytesPerUnit = width == 1 ? 1 : width / 8;
    if (bytesPerUnit < 1 || !currentRecipeItems(first, end))
        return;
    const RecipeWindow window(block.address, qMin(block.length, int(KQ71_DATA_BYTES) / bytesPerUnit));
    for (int k = end - 1; k >= first; --k) {
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

    const kq71::RegisterTraits traits = kq71::registerTraits(job.regName);
    const int width = traits.known() ? traits.unitBits : 0;
    if (traits.interleaved) {
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
    if (traits.known())
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
    const std::vector<PlannedBlock> plan = planBlocks(keys, 2);
    for (size_t k = 0; k < plan.size(); ++k) {
        const PlannedBlock &p = plan[k];
        _RCP_VAR_PRO block;
        block.station = p.station;
        block.regName = p.regName;
        block.address = p.address;
        block.length = p.length;
        block.bufOffset = keys.at(p.source).bufOffset;
        driver.rcpBlocks.append(block);
        driver.rcpBlockStarts.append(p.firstItem);
        driver.rcpBlockItems.append(qMakePair(p.firstItem, p.itemCount));
    }
    return driver.rcpItems.size();
}
