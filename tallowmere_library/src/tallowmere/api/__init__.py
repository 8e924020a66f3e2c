"""Result records returned by the submission client.

:mod:`tallowmere.api.signal_types` holds the five records that every call of
``SignalServiceClient`` answers with (``SubmitResult``, ``StatusResult``,
``BatchSubmitResult``, ``BatchSubmitItemResult``, ``SubmissionListResult``).
"""
