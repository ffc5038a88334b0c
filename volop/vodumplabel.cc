#include "vodumplabel.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "voerrors.h"

DumpLabel::DumpLabel() : _fromDV(0), _toDV(0), _labelLength(0) { memset(_label, 0, sizeof _label); }

unsigned DumpLabel::initialize(const char* label) {
    if (label == nullptr) label = "";
    size_t n = strlen(label);
    // The tail is kept on purpose: the versions stand at the end.
    if (n > LABEL_MAX) {
        label += n - LABEL_MAX;
        n = LABEL_MAX;
    }
    memcpy(_label, label, n);
    _label[n] = '\0';
    _labelLength = static_cast<unsigned>(n);
    _fromDV = _toDV = 0;
    if (n == 0) return 0;

    const char* colon = strchr(_label, ':');
    if (colon == nullptr) return VOD_ERR_BAD_DUMP_LABEL;
    char* end = nullptr;
    _fromDV = strtoull(colon + 1, &end, 0);
    // Whatever follows the number separates it from the next one.
    if (*end != '\0') end++;
    _toDV = strtoull(end, nullptr, 0);
    if (_fromDV > _toDV) return VOD_ERR_BAD_DUMP_LABEL;
    return 0;
}

void DumpLabel::initialize(const char* name, unsigned long long fromDV, unsigned long long toDV) {
    if (name == nullptr) name = "";
    _fromDV = fromDV;
    _toDV = toDV;
    char from[24], to[24];
    snprintf(from, sizeof from, "%llu", fromDV);
    snprintf(to, sizeof to, "%llu", toDV);
    const size_t numbers = strlen(from) + strlen(to);
    // Two colons and the numbers leave the rest of the label to the name.
    const size_t room = LABEL_MAX - 2 - numbers;
    int n = snprintf(_label, sizeof _label, "%.*s:%s:%s", static_cast<int>(room), name, from, to);
    _labelLength = n < 0 ? 0 : static_cast<unsigned>(n);
}

unsigned DumpLabel::getLabel(char* dst) const {
    memcpy(dst, _label, _labelLength);
    if (_labelLength < LABEL_MAX) dst[_labelLength] = '\0';
    return _labelLength;
}
