"""``tallowmere submit`` and ``tallowmere submit-strategy``: simulate one graph, then submit it."""

from __future__ import annotations

import argparse
from typing import Any

from tallowmere.api.signal_types import SubmitResult
from tallowmere.cli.commands.simulate import simulate_graph, simulation_cache, simulation_document
from tallowmere.cli.connection import (
    ServiceAddress,
    answered,
    fetch_era_catalog,
    open_client,
    refusal_text,
    request_failure,
    resolve_address,
    unreachable,
)
from tallowmere.cli.errors import EXIT_OK, Interrupted, ServiceRefusal, UsageError
from tallowmere.cli.inputs import read_graph_file
from tallowmere.cli.screening import target_problem
from tallowmere.cli.tables import figure, submit_document
from tallowmere.cli.terminal import Page, Terminal


IN_FLIGHT = (
    "interrupted while the {kind} was being sent: the service may have stored it; run the same command "
    "again to find out (it sends the same body, which the service answers with what it stored)"
)


def named_universe_or_configured(named_universe: str | None) -> str:
    """``named_universe`` when given, else the agent configuration's ``named_universe``; `UsageError` when neither."""
    if named_universe is not None:
        return named_universe
    from tallowmere.agent_onboarding import _config

    try:
        configured = _config.get("named_universe")
    except ValueError as exc:
        raise UsageError(str(exc)) from None
    if isinstance(configured, str) and configured.strip():
        return configured
    raise UsageError(f"no named universe: pass --universe or set named_universe in {_config.config_path()}")


def conclude_submission(
    terminal: Terminal, result: SubmitResult, document: dict[str, Any], address: ServiceAddress, kind: str
) -> int:
    """Emit an accepted submission; raise the refusal or the failed request otherwise."""
    if result.status_code == 0:
        error = unreachable(address, result.error or "no answer")
        error.document = document
        raise error
    if result.error is not None:
        reason = refusal_text(result.status_code, result.error, result.body, address)
        raise ServiceRefusal(f"the service refused the {kind}: {reason}", document=document)

    def render(page: Page) -> None:
        body = result.body if isinstance(result.body, dict) else {}
        pool = result.signal_pool_name or result.strategy_pool_name
        page.line(f"{kind} {result.submission_id} accepted: {body.get('status', '')}, pool {pool}")
        page.line(
            f"market {body.get('market_id')}, era {body.get('era_number')}, "
            f"idempotency key {body.get('idempotency_key')}"
        )
        simulation = document.get("simulation")
        if isinstance(simulation, dict):
            page.line(
                f"{simulation['expression']}: in-sample sharpe {figure(simulation['is_stats'].get('sharpe'))}, "
                f"out-of-sample sharpe {figure(simulation['os_stats'].get('sharpe'))}"
            )

    terminal.emit(document, render)
    return EXIT_OK


def run_submit(args: argparse.Namespace, terminal: Terminal) -> int:
    """Simulate the graph of ``args.graph_file`` and submit it as a signal."""
    graph = read_graph_file(args.graph_file)
    named_universe = named_universe_or_configured(args.named_universe)
    address = resolve_address(args)
    simulation = simulate_graph(graph, args.graph_file, simulation_cache(args, terminal))
    with open_client(address) as client:
        # Fetched first so that a failure to get it is told apart from a local check:
        # the submission below reuses it (the client keeps it for a minute).
        catalog = fetch_era_catalog(client, address)
        problem = target_problem(
            catalog, market_id=args.market_id, era_number=args.era_number, signal_pool_name=args.signal_pool_name
        )
        if problem is not None:
            raise UsageError(f"not sent: {problem}")
        try:
            with answered(address, "POST /signals/submit"):
                result = client.submit_signal(
                    graph,
                    named_universe,
                    signal_pool_name=args.signal_pool_name,
                    **simulation.submission_kwargs(),
                    metaparameters=args.metaparameters,
                    idempotency_key=args.idempotency_key,
                    market_id=args.market_id,
                    era_number=args.era_number,
                )
        except ValueError as exc:
            raise request_failure(exc, address, "GET /eras") or UsageError(f"not sent: {exc}") from exc
        except KeyboardInterrupt:
            raise Interrupted(IN_FLIGHT.format(kind="signal")) from None
    document = {**submit_document(result), "simulation": simulation_document(graph, simulation)}
    return conclude_submission(terminal, result, document, address, "signal")


def run_submit_strategy(args: argparse.Namespace, terminal: Terminal) -> int:
    """Simulate the graph of ``args.graph_file`` and submit it as a strategy."""
    graph = read_graph_file(args.graph_file)
    named_universe = named_universe_or_configured(args.named_universe)
    address = resolve_address(args)
    simulation = simulate_graph(graph, args.graph_file, simulation_cache(args, terminal))
    with open_client(address) as client:
        catalog = fetch_era_catalog(client, address)
        problem = target_problem(catalog, market_id=args.market_id, era_number=args.era_number)
        if problem is not None:
            raise UsageError(f"not sent: {problem}")
        try:
            with answered(address, "POST /strategies/submit"):
                result = client.submit_strategy(
                    graph,
                    named_universe,
                    strategy_pool_name=args.strategy_pool_name,
                    market_id=args.market_id,
                    era_number=args.era_number,
                    metaparameters=args.metaparameters,
                    idempotency_key=args.idempotency_key,
                )
        except ValueError as exc:
            raise UsageError(f"not sent: {exc}") from exc
        except KeyboardInterrupt:
            raise Interrupted(IN_FLIGHT.format(kind="strategy")) from None
    document = {**submit_document(result), "simulation": simulation_document(graph, simulation)}
    return conclude_submission(terminal, result, document, address, "strategy")
