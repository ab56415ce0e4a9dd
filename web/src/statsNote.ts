// Why a statistic cell is blank (or what it means), for its tooltip: the host leaves the
// statistics of a value empty when they are switched off, the value has more elements than the
// limit, or it holds no numbers, and computes those of complex values from their magnitude.
// DOM-free.

export interface StatisticsSettings {
  on: boolean;
  /** Values with more elements get none. */
  limit: number;
  /** The keys of the statistic columns. */
  columns: string[];
}

export interface StatsRow {
  Class?: string;
  Size?: string;
  Min?: string;
}

/** How many elements a Size text such as "3×4" stands for; null when it is not one. */
export function elementsOf(size: string): number | null {
  const pieces = size.split('\u00d7');
  if (pieces.some((piece) => !/^\d+$/.test(piece))) return null;
  return pieces.reduce((product, piece) => product * Number(piece), 1);
}

export function statsNote(row: StatsRow, settings: StatisticsSettings): string | null {
  const className = row.Class ?? '';
  if (className === '') return null; // not described yet
  if (row.Min) return /complex/.test(className) ? 'Statistics of the magnitude |z| of each value' : null;
  if (!settings.on) return 'Not computed: statistics are switched off';
  const elements = elementsOf(row.Size ?? '');
  if (elements !== null && elements > settings.limit)
    return `Not computed: ${elements.toLocaleString('en')} elements, over the limit of ${settings.limit.toLocaleString('en')}`;
  if (elements === 0) return 'Not computed: the value is empty';
  if (className === 'DataFrame') return 'Not computed: no numeric columns';
  if (className === 'list' || className === 'tuple') return `Not computed: not every item of the ${className} is a number`;
  return `Not computed: a ${className} is not numeric`;
}
