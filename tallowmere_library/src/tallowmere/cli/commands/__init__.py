"""The subcommands of ``tallowmere``, one module per group.

Each ``run_<command>(args, terminal) -> int`` takes the parsed arguments and
the `Terminal` to write on, and returns the exit status; an outcome that ends
the command early is raised as a `CommandError`.
"""
