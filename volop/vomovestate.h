// The volume move operation.  Only the process-wide keep-source setting exists
// so far; the operation itself arrives with the move work.
#ifndef VOLOP_VOMOVESTATE_H
#define VOLOP_VOMOVESTATE_H

class VoMoveState {
public:
    // -k of the command line: a finished move keeps its source volume when non-zero.
    // Set once by main before any thread exists.
    static void setKeepSrc(int keep) { _keepSrc = keep; }
    static int keepSrc() { return _keepSrc; }

private:
    static int _keepSrc;
};

#endif
