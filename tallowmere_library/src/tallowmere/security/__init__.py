"""Checks that keep credentials from travelling where they must not.

:mod:`tallowmere.security.transport` decides which URLs may carry a bearer
token.
"""
