// Compiled with one layer's include roots and one header of the project: a
// header of the same or a lower layer must compile, one of a higher layer must not.
#include TVD_PROBE_HEADER
