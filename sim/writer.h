// Writers: threads that keep changing files in a volume at a steady rate, so that the passes
// of a move always find work.  Driven by the control command "writer" (sim/README.md).
#pragma once

// Registers the control command writer.
void simWriterRegisterCommands();
