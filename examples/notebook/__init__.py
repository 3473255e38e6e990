"""A small notebook: sample source for scopeinfo, with a bit of everything that a scope can hold."""

from .model import Note, Priority
from .store import Store, open_store

__all__ = ["Note", "Priority", "Store", "open_store"]
__version__ = "1.0"
