"""Improve: the person's recurring instructions, found in their agent conversations."""
