// Where recipe values stand: the units a recipe item or block spans, and the
// recipe buffer of 16-bit words (each low byte first) owned by the runtime.
#ifndef SERVICE_RECIPE_LAYOUT_H
#define SERVICE_RECIPE_LAYOUT_H

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

#endif
