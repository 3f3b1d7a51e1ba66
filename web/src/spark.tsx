// A small curve of the last rates, beside the figure of now.
const WIDTH = 60
const HEIGHT = 18

export function sparkPath(rates: readonly number[], size: number): string {
  const most = Math.max(...rates, 1)
  const step = WIDTH / (size - 1)
  const first = size - rates.length
  return rates
    .map(
      (one, at) =>
        `${((first + at) * step).toFixed(1)},${(HEIGHT - 1 - (one / most) * (HEIGHT - 2)).toFixed(1)}`,
    )
    .join(' ')
}

export const Spark = ({ rates, size }: { rates: readonly number[]; size: number }) => (
  <svg
    class="spark"
    width={WIDTH}
    height={HEIGHT}
    viewBox={`0 0 ${WIDTH} ${HEIGHT}`}
    aria-hidden="true"
  >
    <polyline points={sparkPath(rates, size)} />
  </svg>
)
