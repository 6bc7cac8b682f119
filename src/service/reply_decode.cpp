// Decoding of a good read reply into the cache, and into the recipe buffer
// while a recipe is being read.
#include "reply_decode.h"
#include "byte_order.h"
#include "change_notify.h"
#include "data_area.h"
#include "bit_in_word.h"
#include "recipe.h"

namespace {

// Reply bytes past the end read as 0.
class ReplyBytes {
public:
    explicit ReplyBytes(const QByteArray &reply)
        : bytes_(reinterpret_cast<const unsigned char *>(reply.constData())), size_(reply.size())
    {
    }
    unsigned char at(qint64 i) const { return (i >= 0 && i < size_) ? bytes_[i] : 0; }
    int size() const { return size_; }

private:
    const unsigned char *bytes_;
    int size_;
};

void decodeBits(const ReplyBytes &reply, const UnitRange &r, int pos, const VARIABLE &var)
{
    AreaKey area(r.area);
    const int units = r.units;
    for (int i = 0; i < units; ++i) {
        const int idx = getIndexOfDataArea(var.station, area, var.address + i);
        const quint8 bit = (reply.at(qint64(pos) + i / 8) >> (i % 8)) & 1;
        _DATA_ &unit = driver.dataAreas[idx];
        if (unit.readValue[0] != bit) {
            unit.readValue[0] = bit;
            unit.writePending = 0;
            _bitDataChange(idx);
            if (cacheClearedSince(area))
                return;
        }
    }
}

// A written value stays pending over a changed reply only for bit writes inside
// the unit: the reply's other bits join the written bits.
void clearPendingUnlessBitWrite(_DATA_ &unit)
{
    if (unit.bitWritePending != 0)
        keepPendingBits(unit);
    else
        unit.writePending = 0;
}

int shownPacked(const _DATA_ &unit)
{
    const quint8 *b = unit.writePending == 1 ? unit.writtenValue : unit.readValue;
    return uchar2int16(b[0], b[1]);
}

void decodeWords(const ReplyBytes &reply, const UnitRange &r, int pos, const VARIABLE &var, int stride)
{
    AreaKey area(r.area);
    const int units = r.units;
    for (int i = 0; i < units; ++i) {
        const int idx = getIndexOfDataArea(var.station, area, var.address + i);
        const qint64 p = pos + qint64(2) * stride * i;
        const unsigned char b0 = reply.at(p), b1 = reply.at(p + 1);
        _DATA_ &unit = driver.dataAreas[idx];
        unit.spareFlag |= WORD_SEEN;
        const bool held = (unit.spareFlag & WORD_BITS_HELD) != 0;
        const int newValue = uchar2int16(b0, b1);
        const int oldValue = uchar2int16(unit.readValue[0], unit.readValue[1]);
        if (newValue != oldValue) {
            // Watched bits compare what the runtime saw with what it sees now.
            const int shownBefore = shownPacked(unit);
            unit.readValue[0] = b0;
            unit.readValue[1] = b1;
            clearPendingUnlessBitWrite(unit);
            const int shownAfter = shownPacked(unit);
            _wordDataChange(&shownBefore, &shownAfter, idx, REPORT_WORD_AND_BITS);
            if (cacheClearedSince(area))
                return;
        }
        // The report may have re-entered and cleared the cache.
        if (held && idx < driver.dataAreas.size() && (driver.dataAreas.at(idx).spareFlag & WORD_BITS_HELD))
            releaseHeldBitWrite(idx);
    }
}

void decodeDoubleWords(const ReplyBytes &reply, const UnitRange &r, int pos, const VARIABLE &var)
{
    AreaKey area(r.area);
    const int units = r.units;
    for (int i = 0; i < units; ++i) {
        const int idx = getIndexOfDataArea(var.station, area, var.address + i);
        const qint64 p = pos + qint64(4) * i;
        unsigned char b[4];
        for (int k = 0; k < 4; ++k)
            b[k] = reply.at(p + k);
        _DATA_ &unit = driver.dataAreas[idx];
        const int newValue = uchar2int32(b[0], b[1], b[2], b[3]);
        const int oldValue =
            uchar2int32(unit.readValue[0], unit.readValue[1], unit.readValue[2], unit.readValue[3]);
        if (newValue != oldValue) {
            for (int k = 0; k < 4; ++k)
                unit.readValue[k] = b[k];
            unit.writePending = 0;
            _dwordDataChange(&oldValue, &newValue, idx, 0);
            if (cacheClearedSince(area))
                return;
        }
    }
}

void reportRecipeWord(int word)
{
    reportValueChange(0, -1, QString::fromLatin1("RWI"), word);
}

// An item's words (or its first double word) from the reply into the buffer.
void copyItemWords(const ReplyBytes &reply, int pos, const VARIABLE &var, const _RCP_VAR_PRO &item,
                   const RecipeWindow &span, int width, int stride)
{
    for (int u = span.first; u < span.end(); ++u) {
        const int j = u - item.address; // unit within the item
        const qint64 p0 = pos + qint64(u - var.address) * (width == kq71::UNIT_DWORD ? 4 : 2 * stride);
        if (width == kq71::UNIT_WORD) {
            const qint64 word = qint64(item.bufOffset) + j;
            if (!storeRecipeWord(word, reply.at(p0 + 1), reply.at(p0)))
                continue;
            reportRecipeWord(int(word));
        } else if (j == 0) {
            // One double word per item: the first one the item names.
            const qint64 word = item.bufOffset;
            if (!storeRecipeWord(word, reply.at(p0 + 1), reply.at(p0)) ||
                !storeRecipeWord(word + 1, reply.at(p0 + 3), reply.at(p0 + 2)))
                continue;
            reportRecipeWord(int(word));
            reportRecipeWord(int(word + 1));
        }
    }
}

// Bits of a recipe item stand packed in the buffer, 16 to a word, least
// significant first; each word touched is reported once.
void copyItemBits(const ReplyBytes &reply, int pos, const VARIABLE &var, const _RCP_VAR_PRO &item,
                  const RecipeWindow &span)
{
    qint64 lastWord = -1;
    for (int u = span.first; u < span.end(); ++u) {
        const int i = u - item.address;
        const int off = u - var.address;
        const int bit = (reply.at(qint64(pos) + off / 8) >> (off % 8)) & 1;
        const qint64 word = qint64(item.bufOffset) + i / 16;
        if (!storeRecipeBit(word, i % 16, bit))
            continue;
        if (word != lastWord && lastWord >= 0)
            reportRecipeWord(int(lastWord));
        lastWord = word;
    }
    if (lastWord >= 0)
        reportRecipeWord(int(lastWord));
}

// Copies the values of the block's items from the reply to their places in the
// recipe buffer. Each item is placed by its own bufOffset; units of an item
// that lie outside this block belong to another block's reply.
void copyToRecipe(const ReplyBytes &reply, int pos, const VARIABLE &var, int width, int stride)
{
    int first, end;
    if (!driver.recipeBuf || !currentRecipeItems(first, end))
        return;
    const RecipeWindow block(var.address, var.length);
    for (int k = first; k < end; ++k) {
        const _RCP_VAR_PRO item = driver.rcpItems.at(k);
        const RecipeWindow span = block.overlap(recipeItemWindow(item));
        if (width == kq71::UNIT_BIT)
            copyItemBits(reply, pos, var, item, span);
        else
            copyItemWords(reply, pos, var, item, span, width, stride);
    }
}

} // namespace

void analyzeFrameOfVal(const QByteArray &replyBytes, int itemCount, int dataPos, const VARIABLE &var)
{
    const ReplyBytes reply(replyBytes);
    // Loops are bounded by the range limit of every call; bytes past the reply read as 0.
    const UnitRange r = cacheRange(var.regName, var.address, itemCount, UNIT_COUNT);
    const int stride = r.traits.interleaved ? 2 : 1;
    const bool recipeRead = driver.cycleState == CYCLE_RECIPE_READ;
    const int width = r.traits.unitBits;

    if (width == kq71::UNIT_BIT)
        decodeBits(reply, r, dataPos, var);
    else if (width == kq71::UNIT_WORD)
        decodeWords(reply, r, dataPos, var, stride);
    else
        decodeDoubleWords(reply, r, dataPos, var);
    if (recipeRead)
        copyToRecipe(reply, dataPos, var, width, stride);
}
