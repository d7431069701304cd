// True only in the build of the client that the browser tests and the benchmark load
// (vite build --mode taps) and in the unit tests: the code behind it reads or writes what
// only they define. Everywhere else it is false, and the build leaves that code out.
declare const __BRINMOOR_TAPS__: boolean;
