"""The entry script imports this module for what importing it does; here that is nothing."""
