// SPDX-License-Identifier: MIT
// A library has a source, also where all that counts of it is its precompiled header.
