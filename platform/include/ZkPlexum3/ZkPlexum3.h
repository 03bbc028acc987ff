#pragma once

/// The application's native life cycle. A process calls these three from its main thread, in this
/// order, each at most once.

extern "C" {

/// Makes the shared configuration and logging usable; nothing of the closed libraries may be used
/// before. Takes the environment as it stands into the configuration.
/// @param reserved always 0
/// @return 0, or another value if the libraries can't be used at all
int ZkPlexum3InitializeMinimally(int reserved);

/// Brings up everything else, reading the configuration as it stands at the call.
/// @param reserved always 0
/// @return 0, or another value if the application can't run
int ZkPlexum3Initialize(int reserved);

/// Takes everything down that either initialisation brought up. Has the form of an exit handler.
/// @param reserved always null
void ZkPlexum3Uninitialize(void* reserved);
}
