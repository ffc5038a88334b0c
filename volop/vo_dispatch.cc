// The dispatcher of VOPROG (filled in next).
