// DumpLabel: the text that names what a dump covers, "name:fromDV:toDV",
// with the two data versions in decimal. A client hands the label of its
// last dump back to ask for the next incremental one; a restore applies
// dumps in the order their labels chain.
//
// A plain value; no lock.
#ifndef VOLOP_VODUMPLABEL_H
#define VOLOP_VODUMPLABEL_H

#include <stddef.h>

class DumpLabel {
  public:
    static constexpr unsigned LABEL_MAX = 256;

    DumpLabel();

    // Parses a label given by a client (null counts as empty). Longer than
    // LABEL_MAX characters, only its last LABEL_MAX are kept. An empty label
    // is a full dump (both versions 0). 0, or 5016 when there is no colon or
    // the from-version exceeds the to-version. The versions are read with
    // base 0, so "0x10" and "020" are numbers too.
    unsigned initialize(const char* label);
    // Makes the label of a dump of name from fromDV to toDV, keeping the
    // whole within LABEL_MAX characters by shortening the name.
    void initialize(const char* name, unsigned long long fromDV, unsigned long long toDV);

    // Copies the text (at most LABEL_MAX bytes, terminated when shorter) to
    // dst; the length copied.
    unsigned getLabel(char* dst) const;
    unsigned long long getFromDV() const { return _fromDV; }
    unsigned long long getToDV() const { return _toDV; }
    unsigned length() const { return _labelLength; }

  private:
    unsigned long long _fromDV;
    unsigned long long _toDV;
    unsigned _labelLength;
    char _label[LABEL_MAX + 1];  // terminated for our own use
};

#endif  // VOLOP_VODUMPLABEL_H
