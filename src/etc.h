// etc: the reentrant string tokenizer kstrtok with a fixed pool of 32 contexts, used when
// building version strings. The pool is guarded by its own mutex; one context must be
// used by one thread at a time.
#pragma once

inline constexpr int KSTRTOK_MAX_CONTEXT = 32;

// Reserves the lowest free context and returns its number 0..31. When all 32 are in use
// it returns 0 without reserving anything (the caller then shares context 0).
int kstrtokbegin();
// Next token of `str` (or of the context's saved position when str is null), split at any
// byte of `delimiters`. The delimiter after the token is overwritten with NUL. Returns the
// token, or null at the end of the string. An out-of-range context returns null.
char *kstrtok(int context, char *str, const char *delimiters);
// Frees the context.
void kstrtokend(int context);
