"""Type information for the compiled module tallowmere.submit."""

import hashlib as hashlib
import json as json
import logging
import math as math
import time as time
from collections.abc import Iterator, Mapping, Sequence
from types import ModuleType
from typing import Any as Any, Callable as Callable, Final, Protocol

import httpx as httpx

from tallowmere.api.signal_types import (
    BatchSubmitItemResult as BatchSubmitItemResult,
    BatchSubmitResult as BatchSubmitResult,
    StatusResult as StatusResult,
    SubmissionListResult as SubmissionListResult,
    SubmitResult as SubmitResult,
)
from tallowmere.security.transport import validate_bearer_transport_url as validate_bearer_transport_url
from tallowmere.simulation import backtest_timing as _backtest_timing, graph_complexity as graph_complexity
from tallowmere.simulation.graph_complexity import GraphComplexity, measure_graph_complexity as measure_graph_complexity
from tallowmere.simulation.mi_contract import (
    _coerce_mi_contract_value as _coerce_mi_contract_value,
    _has_disallowed_mi_contract_field as _has_disallowed_mi_contract_field,
    _has_non_finite_number as _has_non_finite_number,
    _is_finite_number as _is_finite_number,
)
from tallowmere.simulation.named_universe import (
    _is_unsafe_named_universe as _is_unsafe_named_universe,
    _normalize_named_universe as _normalize_named_universe,
)
from tallowmere.submissions.pool_identity import (
    selected_signal_pool_from_era_config as _shared_selected_signal_pool_from_era_config,
)
from tallowmere.submissions.threshold_gates import evaluate_threshold_gates as evaluate_threshold_gates
from tallowmere.telemetry.logging_style import log_library_surface_event as log_library_surface_event

# A JSON value as the standard decoder produces it.
_JSON = Any
# Receives (method, url, headers, body bytes) when the transport starts reading the body.
_TransmissionObserver = Callable[[str, str, dict[str, str], bytes], object]
# Sends one request: (method, url, headers, body) -> (status code, answer bytes).
_RequestFunc = Callable[[str, str, dict[str, str], Any], tuple[int, bytes]]

class _Transport(Protocol):
    """What the client needs of a caller's transport object (an httpx.Client fits)."""

    def post(self, url: str, *, content: Any, headers: dict[str, str]) -> Any: ...
    def get(self, url: str, *, headers: dict[str, str]) -> Any: ...

logger: logging.Logger

_MALFORMED_BODY_PREVIEW_BYTES: Final[int]
_SIGNALS_BATCH_CLIENT_CHUNK_SIZE: int
_TERMINAL_STATUSES: frozenset[str]
_POLL_INTERVAL_SECONDS: float
_UNRESERVED_BYTES: frozenset[int]
_RETIRED_UNIVERSE_ALIAS_KEYS: tuple[str, ...]

def _mi_contract_json_value(value: object) -> float | str: ...
def _stat_metric(is_stats: Mapping[str, object], keys: Sequence[str]) -> float | None: ...
def _reject_caller_threshold_authority(threshold_checks: object = None, thresholds: object = None) -> None: ...
def _validate_submission_thresholds(
    is_stats: Mapping[str, object], is_pnl_mi: object, thresholds: Mapping[str, object] | None = None
) -> None: ...
def _validate_optional_manifest_int(value: object, field_name: str) -> int | None: ...
def _submission_is_stats_payload(is_stats: Mapping[str, object]) -> dict[str, Any]: ...
def _field_value(value: object, key: str, default: object = None) -> Any: ...
def _mapping_lookup(mapping: object, key: object) -> Any: ...
def _coerce_optional_int(value: object) -> int | None: ...
def _active_era_from_catalog(catalog: object, market_id: object = None, era_number: object = None) -> Any: ...
def _required_active_submit_era(catalog: object, market_id: object = None, era_number: object = None) -> Any: ...
def _required_positive_era_int(era: object, field_name: str) -> int: ...
def _required_era_frequency(era: object) -> str: ...
def _simulation_data_contract_projection_from_era(era: object) -> dict[str, Any] | None: ...
def _enforce_graph_complexity_for_submit(graph: object, era: object) -> GraphComplexity: ...
def _enforce_recorded_backtest_timing_for_submit(graph: object, era: object) -> None: ...
def _rule_id_for_named_universe(era: object, named_universe: str) -> Any: ...
def _signal_is_thresholds_for_pool(pool: object, rule_id: object) -> dict[str, Any] | None: ...
def _submission_thresholds_from_era_catalog(
    catalog: object, named_universe: str, signal_pool_name: str, market_id: object = None, era_number: object = None
) -> dict[str, Any]: ...
def _validate_selected_pool_name(value: object, field_name: str = "signal_pool_name") -> None: ...
def _validate_named_universe(value: object) -> str: ...
def _reject_retired_universe_aliases(body: object) -> None: ...
def _percent_encode(value: str) -> str: ...

class SubmissionReceipt:
    submission_id: str
    def __init__(self, submission_id: str) -> None: ...

class SubmissionStatus:
    submission_id: str
    status: str
    is_stats: dict[str, Any]
    payment: dict[str, Any] | None
    rejection_reason: str | None
    signal_pool_name: str | None
    is_correlation: Any
    agent_is_correlation: Any
    is_pnl_mi: Any
    agent_is_pnl_mi: Any
    failure_reason: str | None
    failure_detail: str | None
    failure_message: str | None
    def __init__(
        self,
        submission_id: str,
        status: str,
        is_stats: dict[str, Any],
        payment: dict[str, Any] | None,
        rejection_reason: str | None,
        signal_pool_name: str | None = None,
        is_correlation: Any = None,
        agent_is_correlation: Any = None,
        is_pnl_mi: Any = None,
        agent_is_pnl_mi: Any = None,
        failure_reason: str | None = None,
        failure_detail: str | None = None,
        failure_message: str | None = None,
    ) -> None: ...

class SubmissionRejectedError(Exception):
    status_code: int
    reason: str
    details: dict[str, Any] | None
    body: dict[str, Any] | None
    def __init__(
        self, status_code: int, reason: str, details: dict[str, Any] | None = None, body: dict[str, Any] | None = None
    ) -> None: ...
    # Rebuilt without __init__, from the exception's args and every attribute.
    def __reduce__(self) -> tuple[Callable[..., Any], tuple[Any, ...], dict[str, Any]]: ...

class SignalClientResponseError(Exception):
    status_code: int
    url: str
    raw_body: bytes
    raw_body_preview: bytes
    def __init__(self, message: str, *, status_code: int, url: str, raw_body: bytes) -> None: ...
    def __reduce__(self) -> tuple[Callable[..., Any], tuple[Any, ...], dict[str, Any]]: ...

def _join_url(server_url: str, endpoint: str) -> str: ...
def _parse_response_json(status_code: int, response_body_bytes: bytes, url: str, *, operation: str) -> dict[str, Any]: ...
def _coerce_status_metric(value: object) -> Any: ...
def _failure_reason_from_status_body(body: Mapping[str, Any]) -> Any: ...
def _public_status_body(body: dict[str, Any]) -> dict[str, Any]: ...
def _raise_submission_rejected(status_code: int, response_data: dict[str, Any]) -> None: ...

class _TransmissionObservedBody:
    _body_bytes: bytes
    _observer: _TransmissionObserver
    _method: str
    _url: str
    _headers: dict[str, str]
    _offset: int
    _observed: bool
    def __init__(
        self, body_bytes: bytes, observer: _TransmissionObserver, method: str, url: str, headers: Mapping[str, str]
    ) -> None: ...
    @property
    def consumed(self) -> bool: ...
    def _observe_once(self) -> None: ...
    def read(self, size: int | None = -1) -> bytes: ...
    def seek(self, offset: int, whence: int = 0) -> int: ...
    def tell(self) -> int: ...
    def __iter__(self) -> Iterator[bytes]: ...
    def __next__(self) -> bytes: ...

def _request_json(
    method: str,
    endpoint: str,
    get_token: Callable[[], str],
    server_url: str,
    body: dict[str, Any] | None,
    request_func: _RequestFunc,
    transmission_observer: _TransmissionObserver | None = None,
) -> tuple[int, dict[str, Any]]: ...

class SignalServiceClient:
    _base_url: str
    _jwt_token: str
    _timeout: float
    _transmission_observer: _TransmissionObserver | None
    _client: Any
    _era_catalog_cache: dict[str, Any] | None
    def __init__(
        self,
        base_url: str,
        jwt_token: str,
        *,
        timeout: float = 30.0,
        transport: _Transport | None = None,
        transmission_observer: _TransmissionObserver | None = None,
    ) -> None: ...
    def close(self) -> None: ...
    def _response_content(self, response: Any) -> bytes: ...
    def _transport_request(self, method: str, url: str, headers: dict[str, str], body_content: Any) -> tuple[int, bytes]: ...
    def _canonical_request(self, method: str, endpoint: str, body: dict[str, Any] | None = None) -> tuple[int, dict[str, Any]]: ...
    def _fetch_era_catalog(self) -> dict[str, Any]: ...
    def _resolve_submit_thresholds(
        self, named_universe: str, signal_pool_name: str, market_id: object = None, era_number: object = None
    ) -> dict[str, Any]: ...
    @staticmethod
    def _submit_result_from_body(status_code: int, body: dict[str, Any]) -> SubmitResult: ...
    @staticmethod
    def _batch_item_result_from_body(item: dict[str, Any]) -> BatchSubmitItemResult: ...
    @classmethod
    def _batch_result_from_body(cls, status_code: int, body: dict[str, Any], *, error: str | None = None) -> BatchSubmitResult: ...
    @staticmethod
    def _batch_body_item_from_result(item: BatchSubmitItemResult) -> dict[str, Any]: ...
    @staticmethod
    def _batch_http_status_for_items(results: Sequence[BatchSubmitItemResult]) -> int: ...
    @classmethod
    def _combine_batch_chunk_results(cls, chunk_results: Sequence[BatchSubmitResult]) -> BatchSubmitResult: ...
    @classmethod
    def _batch_result_with_partial_failure(
        cls, failure: BatchSubmitResult, prior_results: list[BatchSubmitItemResult], total_count: int
    ) -> BatchSubmitResult: ...
    @staticmethod
    def _rebase_batch_item_indices(result: BatchSubmitResult, index_offset: int) -> None: ...
    @staticmethod
    def _status_result_from_body(status_code: int, body: dict[str, Any]) -> StatusResult: ...
    @staticmethod
    def _submission_list_result_from_body(
        status_code: int, body: dict[str, Any], *, error: str | None = None
    ) -> SubmissionListResult: ...
    @staticmethod
    def _submit_result_from_rejection(exc: SubmissionRejectedError) -> SubmitResult: ...
    @staticmethod
    def _status_result_from_rejection(exc: SubmissionRejectedError) -> StatusResult: ...
    @staticmethod
    def _error_body_from_response_error(exc: SignalClientResponseError) -> tuple[str, dict[str, Any]]: ...
    @classmethod
    def _submit_result_from_response_error(cls, exc: SignalClientResponseError) -> SubmitResult: ...
    @classmethod
    def _batch_result_from_response_error(cls, exc: SignalClientResponseError) -> BatchSubmitResult: ...
    @classmethod
    def _status_result_from_response_error(cls, exc: SignalClientResponseError) -> StatusResult: ...
    @staticmethod
    def _submit_result_from_transport_error(exc: BaseException) -> SubmitResult: ...
    @staticmethod
    def _batch_result_from_transport_error(exc: BaseException) -> BatchSubmitResult: ...
    @staticmethod
    def _status_result_from_transport_error(exc: BaseException) -> StatusResult: ...
    @staticmethod
    def _idempotency_key_for_body(body: Mapping[str, Any]) -> str: ...
    @staticmethod
    def _validate_submission_contract(
        signal_pool_name: object,
        is_stats: object,
        is_pnl_mi: object,
        expression_elapsed_seconds: object,
        thresholds: Mapping[str, object] | None = None,
        client_manifest_version: object = None,
        client_manifest_market_id: object = None,
        client_manifest_era_number: object = None,
    ) -> None: ...
    def submit_signal(
        self,
        graph: Mapping[str, Any],
        named_universe: str | None = None,
        *,
        signal_pool_name: str,
        is_stats: Mapping[str, Any],
        is_pnl_mi: float | str,
        metaparameters: Any = None,
        expression_elapsed_seconds: float,
        search_state: Any = None,
        idempotency_key: object = None,
        threshold_checks: object = None,
        thresholds: object = None,
        client_manifest_version: int | None = None,
        market_id: int | None = None,
        era_number: int | None = None,
        client_manifest_market_id: int | None = None,
        client_manifest_era_number: int | None = None,
    ) -> SubmitResult: ...
    def submit_strategy(
        self,
        graph: Mapping[str, Any],
        named_universe: str | None = None,
        *,
        strategy_pool_name: str,
        market_id: int,
        era_number: int,
        metaparameters: Any = None,
        idempotency_key: object = None,
        client_manifest_version: int | None = None,
        client_manifest_market_id: int | None = None,
        client_manifest_era_number: int | None = None,
    ) -> SubmitResult: ...
    def submit_signals_batch(
        self, submissions: list[dict[str, Any]] | tuple[dict[str, Any], ...]
    ) -> BatchSubmitResult: ...
    def get_signal_status(self, submission_id: str) -> StatusResult: ...
    def list_signal_submissions(
        self, *, status: str | None = None, idempotency_key: str | None = None, since: str | None = None,
        limit: int | None = 100,
    ) -> SubmissionListResult: ...
    def poll_until_terminal(self, submission_id: str, *, timeout: float) -> StatusResult: ...
