verbose: bool
folder: str

def describe(short: bool = ...) -> str | dict[str, object]: ...
