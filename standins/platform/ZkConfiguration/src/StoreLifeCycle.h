#pragma once

/// What the life cycle library does to the store; no other library includes this.
namespace Plexum3::ZkConfiguration::internal {

/// Adds every variable of the process environment to the store. An entry without "=" is left out.
/// Main thread only, while no other thread changes the environment.
void takeEnvironment();

/// Empties the store and gives its memory back. Reading it afterwards stays allowed.
void clear();

}  // namespace Plexum3::ZkConfiguration::internal
