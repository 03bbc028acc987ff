"""Services that all parts of the application share."""

from Utils import EventModule
