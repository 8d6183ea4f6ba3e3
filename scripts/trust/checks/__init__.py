"""All checks. Each is a module of this package, whose docstring begins with what it shows, with `ORDER`, by which they
are run, and `run(run)`, which adds its figures to a figures.Run."""

import importlib
import pkgutil

_modules = {found.name: importlib.import_module(f"{__name__}.{found.name}") for found in pkgutil.iter_modules(__path__)}
ALL = dict(sorted(_modules.items(), key=lambda named: named[1].ORDER))
