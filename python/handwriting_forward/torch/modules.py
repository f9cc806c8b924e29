"""Modules with a layer of the library, for networks that are to be exported."""

from __future__ import annotations

import torch
from torch import nn


class PositionalEncoding(nn.Module):
    """Adds sin(t w) to column 2k and cos(t w) to column 2k + 1 of frame t, w = 10000^(-2k / dim)
    (Vaswani et al., Attention Is All You Need, 2017, 3.5).

    Lines x frames x dim in and out, any number of frames.
    """

    waves: torch.Tensor

    def __init__(self, dim: int) -> None:
        super().__init__()
        self.dim = dim
        self.register_buffer("waves", torch.empty(0, dim), persistent=False)

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        frames = x.size(-2)
        if len(self.waves) < frames:
            self.waves = encoding(frames, self.dim).to(x)
        return x + self.waves[:frames].to(x.dtype)


def encoding(frames: int, dim: int) -> torch.Tensor:
    """What positional encoding adds, frames x dim."""
    columns = torch.arange(dim, dtype=torch.float64)
    frequencies = 10000 ** (-(columns - columns % 2) / dim)
    angles = torch.arange(frames, dtype=torch.float64)[:, None] * frequencies
    return torch.where(columns % 2 == 0, angles.sin(), angles.cos()).float()


class Fsmn(nn.Module):
    """A memory block (Zhang et al., Feedforward Sequential Memory Networks, 2015): to every frame the
    weighted sum of those around it, column by column.

    output[t] = input[t] + sum over k = -before … after of weight[before + k] * input[t + k stride];
    frames outside the line are 0. Lines x frames x dim in and out.
    """

    def __init__(self, dim: int, before: int, after: int, stride: int = 1) -> None:
        super().__init__()
        self.dim = dim
        self.before = before
        self.after = after
        self.stride = stride
        taps = before + after + 1
        self.weight = nn.Parameter(torch.empty(taps, dim).uniform_(-1, 1) / taps**0.5)

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        edges = (self.before * self.stride, self.after * self.stride)
        padded = nn.functional.pad(x.transpose(1, 2), edges)
        kernel = self.weight.t()[:, None]
        memory = nn.functional.conv1d(padded, kernel, dilation=self.stride, groups=self.dim)
        return x + memory.transpose(1, 2)
