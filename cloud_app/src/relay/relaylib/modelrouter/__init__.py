"""The model router: lanes, scoring, budgets, the ledger and completions (see area.py)."""

from .area import ModelRouter

__all__ = ["ModelRouter"]
