"""Set-up of a research agent on this machine.

:mod:`tallowmere.agent_onboarding._config` reads the local agent
configuration (``agent.toml``), for example the agent's default
``named_universe``.
"""
