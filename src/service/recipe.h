// Recipe transfers: where recipe values stand (the units an item or block
// spans, the runtime's recipe buffer of 16-bit words, each low byte first),
// the runtime's flag bytes, and the job of one block.
#ifndef SERVICE_RECIPE_H
#define SERVICE_RECIPE_H

#include "vorn_kq71_ap.h"

// A run of units [first, first + length).
struct RecipeWindow {
    int first;
    int length;

    RecipeWindow(int f, int n) : first(f), length(n > 0 ? n : 0) {}
    int end() const { return int(qMin<qint64>(qint64(first) + length, 2147483647)); }
    RecipeWindow overlap(const RecipeWindow &o) const
    {
        const int f = qMax(first, o.first);
        const int e = qMin(end(), o.end());
        return RecipeWindow(f, e - f);
    }
};

// Units an item spans: its length counts bits for bit registers, 16-bit words
// otherwise (two to a double word).
RecipeWindow recipeItemWindow(const _RCP_VAR_PRO &item);

// Buffer word access; false (nothing done) without a buffer or for a negative word.
bool storeRecipeWord(qint64 word, unsigned char low, unsigned char high);
bool loadRecipeWord(qint64 word, unsigned char &low, unsigned char &high);
bool storeRecipeBit(qint64 word, int bit, int value);

// The items the current recipe block covers, [first, end) in driver.rcpItems;
// false when no block is current.
bool currentRecipeItems(int &first, int &end);

// Recipe flag bytes in the runtime's shared memory (0 when there is none).
int recipeFlag(int offset, bool locked);
void setRecipeFlagLocked(int offset, unsigned char value);

// The job of one recipe block; a write takes its values from the buffer.
void rcpAddrToVar(const _RCP_VAR_PRO &block, VARIABLE &job, int isWrite);

#endif
