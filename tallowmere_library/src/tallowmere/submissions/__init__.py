"""Submission rules evaluated on the client before a signal is sent.

- :mod:`tallowmere.submissions.threshold_gates`: the gates that a signal's
  in-sample statistics must pass;
- :mod:`tallowmere.submissions.pool_identity`: finding a signal pool in an era.
"""
