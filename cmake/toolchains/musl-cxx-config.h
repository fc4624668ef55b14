// Forced into every C++ compilation of the musl build. The configuration
// headers of Debian's libstdc++ were written for glibc and ask for its
// version with __GLIBC_PREREQ; musl has no such macro. Answering "older
// than asked" keeps the headers on their portable paths.
#pragma once
#ifndef __GLIBC_PREREQ
#define __GLIBC_PREREQ(major, minor) 0
#endif
