#pragma once

/// Descriptors 0 to 2 of a program that was started with one of them closed:
///
///     int main() {
///         openClosedStandardStreams();
///         ...
///
/// Whatever a program opens next would get such a number otherwise, and a line that is printed
/// would go into it: into a user's picture, or into a socket. Needs the C library alone.

namespace Plexum3::Base {

/// Opens each of 0 to 2 that is closed on /dev/null, 0 for reading, 1 and 2 for writing; where
/// there is none, on a placeholder that can be neither read nor written. Children inherit them.
///
/// The first step of a program, before anything else opens a file. Never fails: a number that can't
/// be taken at all stays closed.
void openClosedStandardStreams();

}  // namespace Plexum3::Base
