from importlib import metadata

# The fixture virtual_unit: from the installed package, if there is one.
try:
    metadata.distribution("vexahost")
except metadata.PackageNotFoundError:
    pytest_plugins = ["vexahost.pytest_plugin"]
